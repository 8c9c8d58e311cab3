// The global context: a libevent loop.
#include <unistd.h>

#include <array>

#include "global_context.h"
#include "platform_log.h"
#include "resync.h"
#include "service_manager.h"
#include "status.h"

using ko_platform::context_of;
using ko_platform::global_context;

namespace {

// A timer that is refused memory would never fire, and whoever waits for it would wait for ever. The loop keeps the
// room that it once had for timers: it is given as much as all services together can need, with sentinels and a lease.
bool make_room_for_timers(event_base *base) {
  const timeval later{1, 0};
  std::array<ko_platform::event_ptr, 16> timers;
  for (ko_platform::event_ptr &timer : timers) {
    timer.reset(event_new(
        base, -1, 0, [](evutil_socket_t, short, void *) {}, nullptr));
    if (timer == nullptr || event_add(timer.get(), &later) != 0) return false;
  }
  return true;
}

}  // namespace

vx_global *vx_global_init(const char *proc_name) try {
  event_set_log_callback([](int, const char *text) { PLATFORM_WARN("libevent: %s", text); });
  auto context = std::make_unique<global_context>();
  context->base.reset(event_base_new());
  if (context->base == nullptr || !make_room_for_timers(context->base.get())) {
    PLATFORM_ERROR("no event loop can be had");
    return nullptr;
  }
  context->loop = context->base.get();
  context->instance = static_cast<uintptr_t>(getpid());
  context->proc_name = proc_name == nullptr ? "" : proc_name;
  return context.release();
} catch (const std::bad_alloc &) {
  PLATFORM_ERROR("no memory for the global context");
  return nullptr;
}

void vx_global_run(vx_global *global) try {
  if (global == nullptr) return;
  event_base *base = context_of(global).base.get();
  ko_platform::resync resync(context_of(global));
  const ko_platform::status status(context_of(global));
  const timeval at_once{0, 0};  // which is after the wake-up
  event_base_once(
      base, -1, EV_TIMEOUT, [](evutil_socket_t, short, void *) { ko_platform::tell_ready(); }, nullptr, &at_once);
  do event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY);
  while (resync.carry_out());
} catch (const std::exception &error) {
  PLATFORM_ERROR("the event loop cannot run: %s", error.what());
}

void vx_global_finish(vx_global *global) {
  if (global == nullptr) return;
  global_context &context = context_of(global);
  context.redundancy.reset();
  context.store.reset();
  delete &context;
}
