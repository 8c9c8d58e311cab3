#include "program.h"

#include <linux/if_ether.h>

#include <algorithm>
#include <iterator>

#include "acl.h"

namespace ko_forward {
namespace {

constexpr uint32_t all_of_it = 0xFFFFFFFF;  // the answer for a frame that is copied
constexpr uint32_t vlan_mask = 0xFFF;
constexpr size_t longest_program = 2900;  // with 32 actions, the most that the kernel can tell of a filter
constexpr size_t longest_jump = 255;      // of a comparison

// Classic BPF's instructions, by what they do.
namespace op {
sock_filter load_half(uint32_t offset) { return BPF_STMT(BPF_LD | BPF_H | BPF_ABS, offset); }
sock_filter load_beside(uint32_t what) {
  return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF) + what);
}
sock_filter load(uint32_t number) { return BPF_STMT(BPF_LD | BPF_IMM, number); }
sock_filter mask(uint32_t bits) { return BPF_STMT(BPF_ALU | BPF_AND | BPF_K, bits); }
sock_filter modulo(uint32_t number) { return BPF_STMT(BPF_ALU | BPF_MOD | BPF_K, number); }
sock_filter shift_right_by_x() { return BPF_STMT(BPF_ALU | BPF_RSH | BPF_X, 0); }
sock_filter keep(uint32_t cell) { return BPF_STMT(BPF_ST, cell); }
sock_filter recall(uint32_t cell) { return BPF_STMT(BPF_LD | BPF_MEM, cell); }
sock_filter to_x() { return BPF_STMT(BPF_MISC | BPF_TAX, 0); }
sock_filter if_equal(uint32_t number, uint8_t yes, uint8_t no) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, yes, no);
}
sock_filter if_at_least(uint32_t number, uint8_t yes, uint8_t no) {
  return BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, number, yes, no);
}
sock_filter jump(size_t over) { return BPF_STMT(BPF_JMP | BPF_JA, static_cast<uint32_t>(over)); }
sock_filter answer(uint32_t number) { return BPF_STMT(BPF_RET | BPF_K, number); }
sock_filter answer_a() { return BPF_STMT(BPF_RET | BPF_A, 0); }
}  // namespace op

void append(program &out, const program &what) { out.insert(out.end(), what.begin(), what.end()); }

// ---- VLANs ----

// The VLANs from `first` on, up to the next span's: all in or all out, or a word that has a bit for each.
struct span {
  uint32_t first;
  bool mixed;
  uint32_t word;  // of a span that is not mixed: 0 or all ones
};

constexpr uint32_t word_bits = 32;
constexpr int most_runs = 3;  // of a word, up to which its runs are spans of their own

uint32_t word_at(const vlan_set &vlans, uint32_t first) {
  uint32_t word = 0;
  for (uint32_t bit = 0; bit < word_bits; ++bit) word |= static_cast<uint32_t>(vlans[first + bit]) << bit;
  return word;
}

std::vector<span> spans_of(const vlan_set &vlans) {
  std::vector<span> spans;
  const auto add = [&spans](uint32_t first, bool in) {
    const uint32_t word = in ? ~0U : 0U;
    if (spans.empty() || spans.back().mixed || spans.back().word != word) spans.push_back({first, false, word});
  };
  for (uint32_t first = 0; first < vlans.size(); first += word_bits) {
    const uint32_t word = word_at(vlans, first);
    const int runs = 1 + __builtin_popcount((word ^ word >> 1) & 0x7FFFFFFF);
    if (runs > most_runs) {
      spans.push_back({first, true, word});
    } else {
      for (uint32_t bit = 0; bit < word_bits; ++bit) add(first + bit, (word >> bit & 1) != 0);
    }
  }
  return spans;
}

// A search of the spans from `from` to before `end` for the VLAN in A. X is the number of its bit in a mixed word.
program search(const std::vector<span> &spans, size_t from, size_t end) {
  if (end - from == 1) {
    const span &only = spans[from];
    if (!only.mixed) return {op::answer(only.word)};
    return {op::load(only.word), op::shift_right_by_x(), op::mask(1), op::answer_a()};
  }
  const size_t middle = from + (end - from) / 2;
  const program low = search(spans, from, middle);
  program out;
  if (low.size() <= longest_jump) {
    out.push_back(op::if_at_least(spans[middle].first, static_cast<uint8_t>(low.size()), 0));
  } else {
    out = {op::if_at_least(spans[middle].first, 0, 1), op::jump(low.size())};
  }
  append(out, low);
  append(out, search(spans, middle, end));
  return out;
}

// The kernel keeps the outermost tag of a frame beside it, where it took it off or will put it in; a frame that a
// program sends with its tag has it at its place.
program choose_vlans(const vlan_set &vlans, uint16_t untagged_vlan) {
  const std::vector<span> spans = spans_of(vlans);
  const bool any_mixed = std::any_of(spans.begin(), spans.end(), [](const span &at) { return at.mixed; });
  const bool untagged = untagged_vlan != 0 && vlans[untagged_vlan & vlan_mask];
  program out = {
      op::load_beside(SKF_AD_VLAN_TAG_PRESENT),
      op::if_equal(0, 2, 0),
      op::load_beside(SKF_AD_VLAN_TAG),
      op::jump(5),
      op::load_half(2 * ETH_ALEN),
      op::if_equal(ETH_P_8021Q, 2, 0),
      op::if_equal(ETH_P_8021AD, 1, 0),
      op::answer(untagged ? all_of_it : 0),
      op::load_half(ETH_HLEN),
      op::mask(vlan_mask),
      op::if_equal(0, 0, 1),
      op::answer(untagged ? all_of_it : 0),
  };
  if (any_mixed) append(out, {op::keep(0), op::mask(word_bits - 1), op::to_x(), op::recall(0)});
  append(out, search(spans, 0, spans.size()));
  return out;
}

}  // namespace

program make_program(const frame_choice &choice) {
  program out;
  if (choice.sample_rate > 1)
    out = {op::load_beside(SKF_AD_RANDOM), op::modulo(choice.sample_rate), op::if_equal(0, 1, 0), op::answer(0)};
  if (choice.vlans != nullptr)
    append(out, choose_vlans(*choice.vlans, choice.untagged_vlan));
  else if (choice.acl != nullptr)
    append(out, choose_by_acl(*choice.acl));
  else
    out.push_back(op::answer(all_of_it));
  if (out.size() > longest_program) throw acl_error("it becomes longer than the kernel can tell again");
  return out;
}

}  // namespace ko_forward
