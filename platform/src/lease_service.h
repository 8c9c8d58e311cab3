// Redundancy with a lease: joins the machine that decides, the lease in the store, the clock, and the process, which is
// woken, put to sleep and ended.
#pragma once

#include <csignal>
#include <string>

#include "global_context.h"
#include "platform_config.h"
#include "rdnd_lib.h"
#include "store/lease_link.h"
#include "store/lease_machine.h"
#include "store/registration.h"

namespace ko_platform {

// Blocks SIGTERM and SIGINT, or not any more; returns the set of both.
const sigset_t *block_stop_signals(bool on);

// Wakes the process. When that fails, nothing is left to do, and the loop ends.
void call_awake(event_base *base, rdnd_awake_cb awake);

class lease_service final : public attachment, private ko_store::lease_link_user {
 public:
  // Everything is borrowed for the life of the context. From now on SIGTERM and SIGINT end the loop, after what is
  // under way was written and the lease was given back. They stay blocked, so that one that comes while the program
  // is exchanged waits for the next.
  lease_service(global_context &context, ko_store::registration &store, const rdnd_mom_reg_info &process,
                const config &settings);

  ~lease_service() override;

  void hand_on(bool is_executed) override;
  bool quiet() const override { return machine_.now() == machine::state::over; }
  bool is_ending() const override { return latest_stop_ != machine::moment(0); }

 private:
  using machine = ko_store::lease_machine;

  void connected() override;
  void lost() override;
  void seen(std::string_view holder, std::string_view last) override;
  void changed(bool is_carried_out) override;

  void carry_out(machine::action next);
  void set_timer();
  void listen();
  void tell_role(std::string_view holder);
  void wake(rdnd_awake_cb awake);
  void fall_asleep();
  void on_stop_signal();
  void look_quiet();

  global_context &context_;
  ko_store::registration &store_;
  const rdnd_mom_reg_info &process_;
  machine machine_;
  std::string holder_;  // what this process calls itself in the store; empty: it has held no lease yet
  ko_store::lease_link link_;
  bool is_listening_ = false;
  machine::moment latest_stop_{};  // when what is under way is not waited for any more
  int stop_signals_;               // a file that they are read from
  event_ptr timer_, stop_, quiet_;
};

}  // namespace ko_platform
