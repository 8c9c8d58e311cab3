// The last error that any channel of this process was given, for its status.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace ko_platform {

struct noted_error {
  std::string text;  // one line, without colours
  std::chrono::system_clock::time_point at;
};

void note_error(std::string_view text) noexcept;
const noted_error &last_error();

}  // namespace ko_platform
