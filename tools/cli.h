// The program without its process: tests run it in theirs.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace lspanctl {

// Runs one command line (without the program's name). Returns the exit status: 0 done, 1 refused, 2 wrong use; the
// reason of the latter two is one line on `err`. `on_terminal`: `err` is a terminal, progress is shown there.
int run(const std::vector<std::string> &arguments, std::ostream &out, std::ostream &err, bool on_terminal);

}  // namespace lspanctl
