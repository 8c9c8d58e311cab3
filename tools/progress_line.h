// How far long work is, on the last line of a terminal.
#pragma once

#include <chrono>
#include <iosfwd>
#include <string>

namespace lspanctl {

class progress_line {
 public:
  // Nothing is shown when `out` is null, nor of work that is done within a moment.
  progress_line(std::ostream *out, std::string what, size_t total);
  progress_line(const progress_line &) = delete;
  progress_line &operator=(const progress_line &) = delete;
  ~progress_line();  // takes the line away
  void show(size_t done);

 private:
  std::ostream *out_;
  std::string what_;
  size_t total_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace lspanctl
