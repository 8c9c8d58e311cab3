#include "log/line.h"

namespace ko_platform {
namespace {

constexpr std::string_view hex_digits = "0123456789abcdef";

// Length of the colour sequence that `text` starts with (ESC [ digits and semicolons m); 0: none.
size_t colour_length(std::string_view text) {
  if (!text.starts_with("\033[")) return 0;
  const size_t end = text.find_first_not_of("0123456789;", 2);
  return end != std::string_view::npos && text[end] == 'm' ? end + 1 : 0;
}

void append_char(std::pmr::string &line, char c) {
  const auto byte = static_cast<unsigned char>(c);
  if (c == '\n' || c == '\r') {
    line += c == '\n' ? "\\n" : "\\r";
  } else if ((byte < 0x20 && c != '\t') || byte == 0x7f) {
    line += {'\\', 'x', hex_digits[byte >> 4], hex_digits[byte & 0xf]};
  } else {
    line.push_back(c);
  }
}

}  // namespace

void append_line_text(std::pmr::string &line, std::string_view text, bool colours) {
  while (text.ends_with('\n') || text.ends_with('\r')) text.remove_suffix(1);
  while (!text.empty()) {
    if (const size_t length = colour_length(text); length != 0) {
      if (colours) line.append(text.substr(0, length));
      text.remove_prefix(length);
    } else {
      append_char(line, text.front());
      text.remove_prefix(1);
    }
  }
}

}  // namespace ko_platform
