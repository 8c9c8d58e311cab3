// Errors that commands throw. what() is one line, which names the next step.
#pragma once

#include <stdexcept>

namespace lspanctl {

// Wrong use: exit status 2.
class usage_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Understood, but not to be done: exit status 1.
class refused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace lspanctl
