// Points in time as text.
#pragma once

#include <string>

namespace lspanctl {

// Now, in local time with milliseconds: the time of day, or with `full` date and time as ISO 8601 has them.
std::string now_text(bool full);

}  // namespace lspanctl
