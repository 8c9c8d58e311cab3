// Redundancy: a machine of its own is always the active one, so a registered process is woken once, as soon as its
// event loop runs.
#include "rdnd_lib.h"

#include <new>

#include "global_context.h"
#include "platform_log.h"

namespace {

class wake_up final : public ko_platform::attachment {
 public:
  wake_up(event_base *base, rdnd_awake_cb awake)
      : base_(base), awake_(awake), event_(event_new(base, -1, 0, &wake_up::fire, this)) {}

  // False when there is no memory for the event.
  bool schedule() {
    if (event_ == nullptr) return false;
    event_active(event_.get(), EV_TIMEOUT, 0);
    return true;
  }

 private:
  static void fire(evutil_socket_t, short, void *self) {
    auto &wake = *static_cast<wake_up *>(self);
    const int32_t status = wake.awake_(nullptr);
    if (status == 0) return;
    PLATFORM_ERROR("the wake-up failed with status %d; nothing is left to do, the event loop ends", status);
    event_base_loopbreak(wake.base_);
  }

  event_base *base_;
  rdnd_awake_cb awake_;
  ko_platform::event_ptr event_;
};

}  // namespace

int32_t rdnd_lib_mom_reg(const rdnd_mom_reg_info *info) try {
  if (info == nullptr || info->global == nullptr || info->awake == nullptr) return -4;
  ko_platform::global_context &context = ko_platform::context_of(info->global);
  auto wake = std::make_unique<wake_up>(context.base.get(), info->awake);
  if (!wake->schedule()) return -2;
  context.redundancy = std::move(wake);
  return 0;
} catch (const std::bad_alloc &) {
  return -2;
}
