// JSON as the tool reads and writes it.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace lspanctl {

using json = nlohmann::ordered_json;

// One line, or indented; bytes that are no UTF-8 are replaced.
std::string dump(const json &value, int indent = -1);

// The value in the file `path`, or in standard input for "-". Throws refused: with line and column where it is
// malformed.
json read_json_file(const std::string &path);

// The name of that file in the errors of read_json_file.
std::string name_of_file(const std::string &path);

}  // namespace lspanctl
