// Redundancy: when a process is woken. Alone, it is the active one: woken once, as soon as its event loop runs. With a
// lease it stands by until it holds that; then it is woken once, too, and when it has lost the lease it starts anew.
#include "rdnd_lib.h"

#include <new>

#include "global_context.h"
#include "lease_service.h"
#include "platform_config.h"
#include "platform_log.h"
#include "store/registration.h"

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
    ko_platform::call_awake(wake.base_, wake.awake_);
  }

  event_base *base_;
  rdnd_awake_cb awake_;
  ko_platform::event_ptr event_;
};

}  // namespace

int32_t rdnd_lib_mom_reg(const rdnd_mom_reg_info *info) try {
  if (info == nullptr || info->global == nullptr || info->awake == nullptr) return -4;
  ko_platform::global_context &context = ko_platform::context_of(info->global);
  const ko_platform::config &settings = ko_platform::process_config();
  if (settings.redundancy.lease_seconds > 0) {
    ko_store::registration *store = ko_store::registration_of(info->global);
    if (store == nullptr || info->awake_peer == nullptr) return -4;
    context.redundancy = std::make_unique<ko_platform::lease_service>(context, *store, *info, settings);
    return 0;
  }
  ko_platform::block_stop_signals(false);  // where this process had a lease before it executed itself
  auto wake = std::make_unique<wake_up>(context.base.get(), info->awake);
  if (!wake->schedule()) return -2;
  context.redundancy = std::move(wake);
  return 0;
} catch (const ko_platform::config_error &error) {
  PLATFORM_ERROR("%s", error.what());
  return -4;
} catch (const std::bad_alloc &) {
  return -2;
}
