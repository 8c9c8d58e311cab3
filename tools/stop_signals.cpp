#include "stop_signals.h"

#include <poll.h>

namespace lspanctl {
namespace {

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int) { stop_requested = 1; }

}  // namespace

stop_signals::stop_signals() {
  stop_requested = 0;
  sigset_t held;
  sigemptyset(&held);
  sigaddset(&held, SIGINT);
  sigaddset(&held, SIGTERM);
  sigprocmask(SIG_BLOCK, &held, &before_);
  struct sigaction action = {};
  action.sa_handler = request_stop;
  sigaction(SIGINT, &action, &interrupt_);
  sigaction(SIGTERM, &action, &terminate_);
}

stop_signals::~stop_signals() {
  sigaction(SIGINT, &interrupt_, nullptr);
  sigaction(SIGTERM, &terminate_, nullptr);
  sigprocmask(SIG_SETMASK, &before_, nullptr);
}

void stop_signals::wait(std::chrono::milliseconds time) const {
  const timespec left{time.count() / 1000, time.count() % 1000 * 1000000L};
  ppoll(nullptr, 0, &left, &before_);
}

bool stop_signals::requested() const { return stop_requested != 0; }

}  // namespace lspanctl
