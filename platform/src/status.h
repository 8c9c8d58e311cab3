// The state of this process, as the request "status" is answered and as the service manager is told.
#pragma once

#include <chrono>
#include <string>

#include "global_context.h"

namespace ko_platform {

// ISO 8601 in local time with its offset; empty for the beginning of time.
std::string time_text(std::chrono::system_clock::time_point when);

// Lives while the event loop runs. Where a service manager watches, it gets a sign of life every now and then.
class status {
 public:
  explicit status(global_context &context);  // borrowed
  status(const status &) = delete;
  status &operator=(const status &) = delete;

 private:
  std::string answer() const;
  const char *state() const;
  std::string role_text() const;
  void tell();

  global_context &context_;
  const std::chrono::system_clock::time_point since_ = std::chrono::system_clock::now();
  std::string told_;  // the last line for the service manager
  event_ptr timer_;
};

}  // namespace ko_platform
