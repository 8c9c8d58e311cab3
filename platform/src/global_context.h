// The structure behind vx_global: the libevent loop, and the objects that other services attached to it.
#pragma once

#include <event2/event.h>
#include <sys/time.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "request_desk.h"
#include "vx_global.h"

namespace ko_platform {

struct event_base_deleter {
  void operator()(event_base *base) const { event_base_free(base); }
};
struct event_deleter {
  void operator()(event *ev) const { event_free(ev); }
};
using event_base_ptr = std::unique_ptr<event_base, event_base_deleter>;
using event_ptr = std::unique_ptr<event, event_deleter>;

// As libevent takes it; its members have 32 bits on some machines.
constexpr timeval to_timeval(std::chrono::microseconds span) {
  return {static_cast<time_t>(span.count() / 1'000'000), static_cast<suseconds_t>(span.count() % 1'000'000)};
}

// Something that lives until the context is finished; it may use the loop while it is destroyed.
class attachment {
 public:
  virtual ~attachment() = default;

  // Begins nothing new, so that the work under way comes to its end.
  virtual void pause() {}
  virtual bool quiet() const { return true; }  // nothing is under way any more
  virtual void resume() {}                     // after a pause: goes on

  // The program is about to be executed in the place of this process, or (false) could not be.
  virtual void hand_on(bool) {}
  virtual bool is_ending() const { return false; }  // the process is about to end, and must not start anew
};

// Whether this process is the active one, and who is, as far as it knows.
struct role {
  bool is_shared = false;  // with processes that may take over; else it is active, and nothing more is known
  bool is_active = true;
  std::string host;                                   // of this process
  std::string active_host, active_pid, active_since;  // empty: nobody is known
};

struct global_context final : vx_global {
  event_base_ptr base;
  std::string proc_name;
  request_desk requests;
  std::unique_ptr<attachment> store;  // the registration with the record store, or null
  std::unique_ptr<attachment> redundancy;
  ko_platform::role role;
  std::function<void()> start_anew;  // executes the program again, at once; while the loop runs
};

inline global_context &context_of(vx_global *global) { return *static_cast<global_context *>(global); }

}  // namespace ko_platform
