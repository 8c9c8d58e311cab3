#include "text.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <ostream>

namespace lspanctl {
namespace {

constexpr uint32_t most_vlan = 4094;
constexpr uint32_t bits_per_word = 32;
constexpr size_t words_of_all_vlans = 128;  // the last bit of the last word is no VLAN

void set_range(uint32_t first, uint32_t last, std::vector<uint32_t> &words) {
  if (words.size() <= last / bits_per_word) words.resize(last / bits_per_word + 1);
  for (uint32_t vlan = first; vlan <= last; ++vlan) words[vlan / bits_per_word] |= 1U << (vlan % bits_per_word);
}

bool is_set(const uint32_t *words, size_t n_words, size_t bit) {
  return bit / bits_per_word < n_words && (words[bit / bits_per_word] >> (bit % bits_per_word) & 1U) != 0;
}

}  // namespace

bool is_number(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

uint32_t parse_number(std::string_view text, const std::string &what, uint32_t least, uint32_t most) {
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (!is_number(text) || error != std::errc() || value < least || value > most)
    throw usage_error(what + " " + printable(std::string(text)) + ": give a number from " + std::to_string(least) +
                      " to " + std::to_string(most));
  return value;
}

std::vector<uint32_t> parse_vlans(std::string_view text) {
  std::vector<uint32_t> words;
  if (text.empty()) return words;
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

std::string hex_text(std::string_view bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    text += digits[static_cast<uint8_t>(byte) >> 4];
    text += digits[static_cast<uint8_t>(byte) & 15];
  }
  return text;
}

std::string printable(const std::string &text) {
  const bool plain = std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 127 && c != '"'; });
  if (plain && !text.empty()) return text;
  return nlohmann::json(text).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

void table::print(std::ostream &out, const std::string &indent) const {
  std::vector<size_t> widths;
  for (const auto &row : rows_) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto &row : rows_) {
    out << indent;
    for (size_t i = 0; i < row.size(); ++i) {
      out << row[i];
      if (i + 1 < row.size()) out << std::string(widths[i] - row[i].size() + 2, ' ');
    }
    out << '\n';
  }
}

}  // namespace lspanctl
