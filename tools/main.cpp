// lspanctl, the operator's tool.
#include <unistd.h>
#include <csignal>
#include <iostream>

#include "cli.h"
#include "standard_files.h"

int main(int argc, char **argv) {
  ko_platform::hold_standard_files();
  // A reader that goes away, of our output or of the store's socket, is an error of a write like any other.
  std::signal(SIGPIPE, SIG_IGN);
  std::ios::sync_with_stdio(false);
  return lspanctl::run({argv + 1, argv + argc}, std::cout, std::cerr, isatty(STDERR_FILENO) == 1,
                       isatty(STDOUT_FILENO) == 1);
}
