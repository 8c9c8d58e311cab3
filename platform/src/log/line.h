// Makes one log line of a text that may hold anything: records come from other processes.
#pragma once

#include <memory_resource>
#include <string>
#include <string_view>

namespace ko_platform {

// Appends `text` to `line`: line ends behind the text are dropped, control characters in it escaped as "\n", "\r" or
// "\x1b". Colour sequences pass when `colours` is true, else they are dropped.
void append_line_text(std::pmr::string &line, std::string_view text, bool colours);

}  // namespace ko_platform
