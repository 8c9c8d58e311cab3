#include "store/lease_machine.h"

#include <algorithm>

namespace ko_store {
namespace {

using namespace std::chrono_literals;
using moment = lease_machine::moment;

constexpr moment least_interval = 50ms, longest_interval = 200ms;  // of looks at another's lease
constexpr moment leave_time = 1s;                                  // for the lease to be given back

moment look_interval(moment lease) { return std::clamp(lease / 10, least_interval, longest_interval); }

// How long a lease is used: two clocks differ by far less than the rest.
moment usable(moment lease) { return lease - lease / 10; }

}  // namespace

lease_machine::action lease_machine::ask(action what, moment now) {
  asked_ = what;
  asked_at_ = now;
  return what;
}

lease_machine::action lease_machine::look_later(moment now) {
  next_look_ = now + look_interval(lease_);
  return action::none;
}

lease_machine::action lease_machine::finish(action last) {
  state_ = state::over;
  valid_until_ = {};
  return last;
}

lease_machine::action lease_machine::connected(moment now) {
  linked_ = true;
  return state_ == state::over ? action::none : ask(action::look, now);
}

void lease_machine::lost() {
  linked_ = false;
  asked_.reset();
}

lease_machine::action lease_machine::seen(process holder, process last, moment now) {
  asked_.reset();
  last_ = last;
  const bool is_own = holder == process::itself;
  switch (state_) {
    case state::waiting:  // its own: taken by what the process was before, or the answer was lost
      if (holder == process::another) return look_later(now);
      return ask(is_own ? action::renew : action::take, now);
    case state::active:
      return is_own && may_write(now) ? ask(action::renew, now) : finish(action::sleep);
    case state::leaving:
      if (!is_own) return finish(action::end);
      valid_until_ = {};
      return ask(action::give_back, now);
    default:
      return action::none;
  }
}

lease_machine::action lease_machine::changed(bool is_carried_out, moment now) {
  const action what = asked_.value_or(action::none);
  const moment until = asked_at_ + usable(lease_);
  asked_.reset();
  if (state_ == state::over) return action::none;
  if (state_ == state::leaving) return what == action::give_back ? finish(action::end) : ask(action::look, now);
  if (state_ == state::active && (!is_carried_out || !may_write(now))) return finish(action::sleep);
  if (!is_carried_out) return look_later(now);
  if (now >= until) return ask(action::look, now);
  valid_until_ = until;
  next_look_ = asked_at_ + lease_ / 3;
  if (state_ == state::active) return action::none;
  state_ = state::active;
  return last_ == process::another ? action::wake_peer : action::wake;
}

lease_machine::action lease_machine::timer(moment now) {
  if (state_ == state::over || now < due()) return action::none;
  if (state_ == state::active && !may_write(now)) return finish(action::sleep);
  if (state_ == state::leaving && now >= leave_until_) return finish(action::end);
  if (!linked_) return action::none;
  return asked_.has_value() ? action::reconnect : ask(action::look, now);
}

// A lease that may have been taken meanwhile is given back, too.
lease_machine::action lease_machine::leave(moment now) {
  if (state_ != state::active && asked_ != action::take && asked_ != action::renew) return finish(action::end);
  state_ = state::leaving;
  leave_until_ = now + leave_time;
  return linked_ && !asked_.has_value() ? ask(action::look, now) : action::none;
}

// The holder waits for an answer until its lease is too old, and connects anew only then: as another process.
lease_machine::moment lease_machine::due() const {
  if (state_ == state::over) return moment::max();
  moment first = moment::max();
  if (state_ == state::active) first = valid_until_;
  if (state_ == state::leaving) first = leave_until_;
  if (!linked_ || (asked_.has_value() && state_ != state::waiting)) return first;
  return std::min(first, asked_.has_value() ? asked_at_ + lease_ : next_look_);
}

}  // namespace ko_store
