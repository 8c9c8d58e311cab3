#include "values.h"

#include <strings.h>
#include <algorithm>
#include <charconv>

#include "errors.h"
#include "proc/ko_span_public.h"
#include "text.h"

namespace lspanctl {
namespace {

constexpr uint32_t most_vlan = 4094;
constexpr uint32_t bits_per_word = 32;
constexpr size_t words_of_all_vlans = 128;  // the last bit of the last word is no VLAN

struct named_direction {
  uint32_t direction;
  const char *name;
};
constexpr named_direction directions[] = {{1, "rx"}, {2, "tx"}, {3, "both"}};
constexpr std::string_view group_prefix = "group:";

void set_range(uint32_t first, uint32_t last, std::vector<uint32_t> &words) {
  if (words.size() <= last / bits_per_word) words.resize(last / bits_per_word + 1);
  for (uint32_t vlan = first; vlan <= last; ++vlan) words[vlan / bits_per_word] |= 1U << (vlan % bits_per_word);
}

bool is_set(const uint32_t *words, size_t n_words, size_t bit) {
  return bit / bits_per_word < n_words && (words[bit / bits_per_word] >> (bit % bits_per_word) & 1U) != 0;
}

}  // namespace

// ---- numbers ----

bool is_number(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

uint32_t parse_number(std::string_view text, const std::string &name, uint32_t least, uint32_t most) {
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (!is_number(text) || error != std::errc() || value < least || value > most)
    throw usage_error(name + " " + printable(text) + ": give a number from " + std::to_string(least) + " to " +
                      std::to_string(most));
  return value;
}

// ---- directions and enumerations ----

uint32_t parse_direction(const std::string &text) {
  for (const named_direction &known : directions)
    if (text == known.name) return known.direction;
  if (!is_number(text)) throw usage_error("direction " + printable(text) + ": give rx, tx, both or a number");
  return parse_number(text, "direction");
}

std::string direction_text(uint32_t direction) {
  for (const named_direction &known : directions)
    if (known.direction == direction) return known.name;
  return std::to_string(direction);
}

uint32_t parse_enum(const ProtobufCEnumDescriptor &type, const std::string &text) {
  if (is_number(text)) return parse_number(text, type.short_name);
  std::string known;
  for (unsigned i = 0; i < type.n_values; ++i) {
    if (strcasecmp(text.c_str(), type.values[i].name) == 0) return static_cast<uint32_t>(type.values[i].value);
    known += std::string(" ") + type.values[i].name;
  }
  throw usage_error(std::string(type.short_name) + " " + printable(text) + ": give a number or one of" + known);
}

std::string enum_text(const ProtobufCEnumDescriptor &type, uint32_t value) {
  const ProtobufCEnumValue *known = protobuf_c_enum_descriptor_get_value(&type, static_cast<int>(value));
  return known == nullptr ? std::to_string(value) : known->name;
}

// ---- groups ----

std::optional<uint32_t> parse_group_target(std::string_view text) {
  if (!text.starts_with(group_prefix)) return std::nullopt;
  return ko_span_group_ifx(parse_number(text.substr(group_prefix.size()), "group", 1));
}

std::string group_text(uint32_t d_ifx) { return std::string(group_prefix) + std::to_string(group_id_of(d_ifx)); }

uint32_t group_id_of(uint32_t d_ifx) { return ko_span_group_id(d_ifx); }

uint32_t result_target(uint32_t d_ifx) { return ko_span_is_group_ifx(d_ifx) ? ko_span_group_id(d_ifx) : d_ifx; }

// ---- VLANs ----

std::vector<uint32_t> parse_vlans(std::string_view text) {
  std::vector<uint32_t> words;
  if (text.empty() || text == "none") return words;
  for (size_t start = 0; start <= text.size();) {
    const size_t end = std::min(text.find(',', start), text.size());
    const std::string_view item = text.substr(start, end - start);
    const size_t dash = item.find('-');
    const uint32_t first = parse_number(item.substr(0, dash), "VLAN", 1, most_vlan);
    const uint32_t last =
        dash == std::string_view::npos ? first : parse_number(item.substr(dash + 1), "VLAN", 1, most_vlan);
    if (first > last) throw usage_error("VLANs " + std::string(item) + ": give the lower number first");
    set_range(first, last, words);
    start = end + 1;
  }
  return words;
}

std::string vlans_text(const uint32_t *words, size_t n_words) {
  std::string text;
  for (size_t first = 0; first < n_words * bits_per_word; ++first) {
    if (!is_set(words, n_words, first)) continue;
    size_t last = first;
    while (is_set(words, n_words, last + 1)) ++last;
    if (!text.empty()) text += ',';
    text += std::to_string(first);
    if (last > first) text += (last == first + 1 ? "," : "-") + std::to_string(last);
    first = last;
  }
  return text;
}

bool is_vlan_list(const uint32_t *words, size_t n_words) {
  if (n_words == 0) return true;
  if (words[n_words - 1] == 0 || (words[0] & 1U) != 0) return false;
  return n_words < words_of_all_vlans || (n_words == words_of_all_vlans && words[n_words - 1] >> 31 == 0);
}

}  // namespace lspanctl
