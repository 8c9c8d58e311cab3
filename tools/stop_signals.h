// SIGINT and SIGTERM as a way to end a wait in good order.
#pragma once

#include <chrono>
#include <csignal>

namespace lspanctl {

// While it lives, the two signals are held back and arrive only in a wait with mask().
class stop_signals {
 public:
  stop_signals();
  ~stop_signals();
  stop_signals(const stop_signals &) = delete;
  stop_signals &operator=(const stop_signals &) = delete;

  const sigset_t &mask() const { return before_; }
  bool requested() const;                           // whether one has arrived
  void wait(std::chrono::milliseconds time) const;  // or until one arrives

 private:
  sigset_t before_;
  struct sigaction interrupt_, terminate_;
};

}  // namespace lspanctl
