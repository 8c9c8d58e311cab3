// Numbers, VLAN lists and tables as people write and read them.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace lspanctl {

// Wrong use: exit status 2. what() is one line.
class usage_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Understood, but not to be done: exit status 1. what() is one line that says what to do.
class refused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Whether `text` is all decimal digits, at least one.
bool is_number(std::string_view text);

// A decimal number up to `most`; `what` names it in the usage_error.
uint32_t parse_number(std::string_view text, const std::string &what, uint32_t least = 0, uint32_t most = UINT32_MAX);

// "10,20-29" as a bit map: word w, bit b (least significant first) is VLAN 32 * w + b. VLANs are 1 to 4094; "" is none.
// Throws usage_error.
std::vector<uint32_t> parse_vlans(std::string_view text);

// The other way; "" for none. Every bit is named, also those that are no VLAN.
std::string vlans_text(const uint32_t *words, size_t n_words);

// Whether the list form of a bit map says all that it holds: no bits that are no VLAN, no words behind the last bit.
bool is_vlan_list(const uint32_t *words, size_t n_words);

// The bytes in hexadecimal.
std::string hex_text(std::string_view bytes);

// `text` as it is when it is plain, else in double quotes with escapes, so that no stored text reaches a terminal raw.
std::string printable(const std::string &text);

// Rows of texts in aligned columns; the first row is the heading.
class table {
 public:
  explicit table(std::vector<std::string> heading) { rows_.push_back(std::move(heading)); }
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  void print(std::ostream &out, const std::string &indent = "") const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace lspanctl
