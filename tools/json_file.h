// JSON files of the tool's.
#pragma once

#include <string>

#include "render.h"

namespace lspanctl {

// The value in a file, or in standard input for "-". Throws refused: with line and column where it is malformed.
json read_json_file(const std::string &path);

}  // namespace lspanctl
