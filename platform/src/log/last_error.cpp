#include "log/last_error.h"

#include <new>

namespace ko_platform {
namespace {

noted_error &noted() {
  static noted_error the_error;
  return the_error;
}

}  // namespace

void note_error(std::string_view text) noexcept try {
  noted_error &error = noted();
  error.text.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\033') {
      i = text.find('m', i);  // the end of a colour sequence
      if (i == std::string_view::npos) break;
    } else {
      error.text.push_back(static_cast<unsigned char>(text[i]) < ' ' ? ' ' : text[i]);
    }
  }
  error.text.erase(error.text.find_last_not_of(' ') + 1);
  error.at = std::chrono::system_clock::now();
} catch (const std::bad_alloc &) {
}

const noted_error &last_error() { return noted(); }

}  // namespace ko_platform
