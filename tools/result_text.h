// The forwarding side's answers in words.
#pragma once

#include <cstdint>
#include <string>

#include "interfaces.h"
#include "member.h"

namespace lspanctl {

// "no such device (ge9)": what a result code other than 0 says, which is a number of errno, and of which port or ACL
// where that can be told.
std::string result_text(uint32_t code, const member &what, const interfaces &ports);

}  // namespace lspanctl
