// A process may be started without standard input, output or error. The next file that it opens, such as the pid file
// or the store's socket, would then have that number, and get the text that is meant for standard output or error.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace ko_platform {

// Takes the numbers that are free, so that what is written there fails. To be called before any file is kept open.
inline void hold_standard_files() {
  int file = 0;
  do file = open("/dev/null", O_RDONLY | O_CLOEXEC);
  while (file >= 0 && file <= STDERR_FILENO);
  if (file >= 0) close(file);
}

}  // namespace ko_platform
