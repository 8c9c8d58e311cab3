#include "text.h"

#include <algorithm>
#include <ostream>

#include "store/record_text.h"

namespace lspanctl {

std::string printable(std::string_view text) {
  const bool plain = std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 127 && c != '"'; });
  return plain && !text.empty() ? std::string(text) : '"' + ko_store::escaped(text) + '"';
}

std::string column(std::string text, size_t width) {
  text.resize(std::max(text.size(), width) + 2, ' ');
  return text;
}

void table::print(std::ostream &out, const std::string &indent) const {
  std::vector<size_t> widths;
  for (const auto &row : rows_) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto &row : rows_) {
    out << indent;
    for (size_t i = 0; i < row.size(); ++i) out << (i + 1 < row.size() ? column(row[i], widths[i]) : row[i]);
    out << '\n';
  }
}

}  // namespace lspanctl
