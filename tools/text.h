// Lines for people: quoting, columns, tables.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace lspanctl {

// `text` as it is when it is plain, else in double quotes with escapes, so that no stored text reaches a terminal raw.
std::string printable(std::string_view text);

// `text`, filled up with blanks to `width` and two more: the columns of lines that come one at a time.
std::string column(std::string text, size_t width);

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
