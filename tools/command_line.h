// All commands, and the words given of them.
#pragma once

#include <string>
#include <vector>

#include "command.h"

namespace lspanctl {

// Makes `root` the root of the command line. Its arguments may stand anywhere. Borrows both.
void make_command_line(command &root, context &ctx);

// A command line, taken apart.
struct parsed {
  const command *asked = nullptr;  // null: nothing to run
  std::string path;                // the command as far as it was given, such as "lspanctl session add"
  std::string help;                // to print instead, for --help and --version
};

// Sets the arguments of `root` and its commands. Throws usage_error; `out` then tells how far it came.
void parse(const command &root, std::vector<std::string> words, parsed &out);

}  // namespace lspanctl
