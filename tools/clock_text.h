// Points in time as text.
#pragma once

#include <string>

namespace lspanctl {

// Now, in local time with milliseconds: the time of day, or with `full` as ISO 8601 has it: date, time, offset from
// UTC.
std::string now_text(bool full);

}  // namespace lspanctl
