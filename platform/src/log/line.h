// Makes one log line of a text that may hold anything: records come from other processes.
#pragma once

#include <iterator>
#include <string_view>

#include <spdlog/fmt/fmt.h>

namespace ko_platform {

using line_buffer = fmt::basic_memory_buffer<char, 2048>;  // longer lines go to the heap

// Appends `text` to `line`: line ends behind the text are dropped, control characters in it escaped as "\n", "\r" or
// "\x1b". Colour sequences pass when `colours` is true, else they are dropped.
void append_line_text(line_buffer &line, std::string_view text, bool colours);

}  // namespace ko_platform
