#include "acl.h"

#include <linux/if_ether.h>
#include <pcap/pcap.h>

#include <cctype>
#include <memory>
#include <string_view>

namespace ko_forward {
namespace {

constexpr int most_bytes = 262144;  // of a frame
constexpr uint32_t tag_offset = 2 * ETH_ALEN;
constexpr uint32_t tag_bytes = 4;
constexpr uint32_t beside = static_cast<uint32_t>(SKF_AD_OFF);

struct pcap_deleter {
  void operator()(pcap_t *handle) const { pcap_close(handle); }
};

program compile(const std::string &expression) {
  const std::unique_ptr<pcap_t, pcap_deleter> handle(pcap_open_dead(DLT_EN10MB, most_bytes));
  if (handle == nullptr) throw std::bad_alloc();
  bpf_program compiled{};
  if (pcap_compile(handle.get(), &compiled, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0)
    throw acl_error(pcap_geterr(handle.get()));
  program out;
  for (const bpf_insn *at = compiled.bf_insns; at != compiled.bf_insns + compiled.bf_len; ++at)
    out.push_back({at->code, at->jt, at->jf, at->k});
  pcap_freecode(&compiled);
  return out;
}

// Whether `word` stands in `expression`, and not as a part of another word.
bool has_word(std::string_view expression, std::string_view word) {
  const auto in_word = [&](size_t at) {
    return at < expression.size() && (std::isalnum(static_cast<unsigned char>(expression[at])) != 0 ||
                                      std::string_view("_-.").find(expression[at]) != std::string_view::npos);
  };
  for (size_t at = expression.find(word); at != std::string_view::npos; at = expression.find(word, at + 1))
    if ((at == 0 || !in_word(at - 1)) && !in_word(at + word.size())) return true;
  return false;
}

bool reads_frame(const sock_filter &what) {
  const auto mode = static_cast<uint16_t>(BPF_MODE(what.code));
  const auto kind = static_cast<uint16_t>(BPF_CLASS(what.code));
  if (kind == BPF_LDX) return mode == BPF_MSH;
  return kind == BPF_LD && (mode == BPF_ABS || mode == BPF_IND) && what.k < beside;
}

uint32_t end_of(const sock_filter &what) {
  switch (BPF_SIZE(what.code)) {
    case BPF_B:
      return what.k + 1;
    case BPF_H:
      return what.k + 2;
    default:
      return what.k + 4;
  }
}

// The same expression where the bytes from `from` on lie elsewhere. What stands across that line cannot be read, and
// where X comes in, the offset has to be that of a network header: nothing else is known of its size.
void check_reads(const program &compiled, uint32_t from) {
  for (const sock_filter &at : compiled) {
    if (!reads_frame(at)) continue;
    if (BPF_MODE(at.code) == BPF_IND && at.k < from)
      throw acl_error("it computes the offset of a byte, which is not possible where there may be VLAN tags");
    if (at.k < from && end_of(at) > from)
      throw acl_error("it reads the bytes before and behind a VLAN tag at once, which is not possible");
  }
}

// For frames that have a tag: reads what would be there without it.
program without_tag(program compiled) {
  check_reads(compiled, tag_offset);
  for (sock_filter &at : compiled)
    if (reads_frame(at) && at.k >= tag_offset) at.k += tag_bytes;
  return compiled;
}

// For frames whose tag is beside them: reads what would be there with it.
program with_tag(program compiled) {
  check_reads(compiled, tag_offset);
  check_reads(compiled, tag_offset + tag_bytes);
  for (sock_filter &at : compiled) {
    if (!reads_frame(at) || at.k < tag_offset) continue;
    const bool is_half = at.code == (BPF_LD | BPF_H | BPF_ABS);
    if (at.k >= tag_offset + tag_bytes)
      at.k -= tag_bytes;
    else if (is_half && at.k == tag_offset)
      at.k = beside + SKF_AD_VLAN_TPID;
    else if (is_half && at.k == tag_offset + 2)
      at.k = beside + SKF_AD_VLAN_TAG;
    else
      throw acl_error("it reads a VLAN tag in other pieces than its two halves, which is not possible");
  }
  return compiled;
}

program operator+(program first, const program &second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

}  // namespace

program choose_by_acl(const std::string &expression) {
  const program plain = compile(expression);
  const auto size = static_cast<uint32_t>(plain.size());
  constexpr uint32_t is_beside = beside + SKF_AD_VLAN_TAG_PRESENT;
  if (has_word(expression, "vlan")) {
    const program which = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, is_beside),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0),
        BPF_STMT(BPF_JMP | BPF_JA, size),
    };
    return which + plain + with_tag(plain);
  }
  const program which = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, is_beside),           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 4),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, tag_offset),          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_8021Q, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_8021AD, 0, 1), BPF_STMT(BPF_JMP | BPF_JA, size),
  };
  return which + plain + without_tag(plain);
}

}  // namespace ko_forward
