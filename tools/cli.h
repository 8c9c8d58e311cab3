// The program without its process: tests run it in theirs.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace lspanctl {

// Runs one command line (without the program's name). Returns the exit status: 0 done, 1 refused, 2 wrong use; the
// reason of the latter two is one line on `err`; more in exit_status.h. `on_terminal`, `out_on_terminal`: `err` or
// `out` is a terminal.
int run(const std::vector<std::string> &arguments, std::ostream &out, std::ostream &err, bool on_terminal,
        bool out_on_terminal = false);

}  // namespace lspanctl
