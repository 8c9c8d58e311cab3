// Which of several processes is the active one, as seen by one of them.
//
//   waiting --take or renew carried out--> active --lease lost, or too old--> over (the process starts anew)
//      |                                      |
//      +-------------- leave -----------------+--> leaving --given back, or no time left--> over (the process ends)
//
// Whoever holds the lease in the store is active. A process looks at it first, and then, when nobody or it itself holds
// it, asks for a change, which the store carries out only when the lease is still as it was seen. The holder renews it
// in time; a lease counts from the moment at which its last change was asked for, which is before the store counts.
//
// The machine is told what happens, with the time, and answers what is to be done next. It has no store, no timer and
// no clock.
#pragma once

#include <chrono>
#include <optional>

namespace ko_store {

class lease_machine {
 public:
  // Of a clock that nobody sets and that goes on while the machine is paused.
  using moment = std::chrono::milliseconds;

  enum class state { waiting, active, leaving, over };

  enum class action {
    none,
    look,       // ask who holds the lease and who was active last; then seen
    take,       // ask for it; then changed
    renew,      // likewise
    give_back,  // likewise
    wake,       // the process becomes active
    wake_peer,  // likewise; it takes over from another
    sleep,      // it is active no more, and has to start anew
    reconnect,  // the store does not answer; then lost, and connected again
    end         // the process may end
  };

  enum class process { nobody, itself, another };

  explicit lease_machine(moment lease) : lease_(lease) {}

  // What happens.
  action connected(moment now);                           // the store can be asked
  void lost();                                            // it cannot; what was asked has no answer
  action seen(process holder, process last, moment now);  // who holds the lease, and who was active last
  action changed(bool is_carried_out, moment now);        // what take, renew or give_back asked for
  action timer(moment now);                               // due has come
  action leave(moment now);                               // the process is to end; it writes nothing any more

  state now() const { return state_; }
  moment due() const;  // when timer is to be called; moment::max(): not at all
  // Whether the process may write: its lease cannot have run out.
  bool may_write(moment now) const { return now < valid_until_; }

 private:
  action ask(action what, moment now);
  action look_later(moment now);
  action finish(action last);

  const moment lease_;
  state state_ = state::waiting;
  bool linked_ = false;
  std::optional<action> asked_;  // what the store has not answered
  moment asked_at_{};
  moment next_look_{};  // while nothing is asked
  moment valid_until_{};
  moment leave_until_{};
  process last_ = process::nobody;
};

}  // namespace ko_store
