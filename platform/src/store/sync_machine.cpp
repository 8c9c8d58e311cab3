#include "store/sync_machine.h"

#include <algorithm>
#include <utility>

#include "platform_log.h"

namespace ko_store {
namespace {

constexpr int first_pause_ms = 500;
constexpr int longest_pause_ms = 30'000;

}  // namespace

const char *to_string(sync_machine::state state) {
  static constexpr const char *names[] = {"idle",      "starting",  "reading", "delivering",
                                          "comparing", "repairing", "live"};
  return names[static_cast<size_t>(state)];
}

void sync_machine::enter(state next) {
  if (next != state_) PLATFORM_DEBUG("store: %s -> %s", to_string(state_), to_string(next));
  state_ = next;
}

// ---- the store comes and goes ----

sync_machine::action sync_machine::engine_up() {
  up_ = true;
  return paused_ ? action::none : begin_reading();
}

void sync_machine::engine_down() {
  up_ = false;
  scans_ = 0;
  enter(state::starting);
}

void sync_machine::paused() {
  paused_ = true;
  scans_ = 0;
  enter(state::starting);
}

sync_machine::action sync_machine::resumed() {
  paused_ = false;
  return up_ ? begin_reading() : action::none;
}

// ---- scans ----

sync_machine::action sync_machine::begin_reading() {
  enter(state::reading);
  scans_ = 0;
  read_failed_ = inputs_in_doubt_ = false;
  return action::read;
}

sync_machine::action sync_machine::begin_comparing() {
  enter(state::comparing);
  scans_ = 0;
  read_failed_ = false;
  return action::compare;
}

void sync_machine::scan_begun() { ++scans_; }

sync_machine::action sync_machine::scans_begun() {
  if (scans_ > 0) return action::none;
  if (read_failed_) return repair_wanted();
  enter(state_ == state::reading ? state::delivering : state::repairing);
  return state_ == state::delivering ? action::deliver : action::repair;
}

sync_machine::action sync_machine::scan_ended() {
  if (scans_ == 0) return action::none;
  --scans_;
  return scans_begun();
}

// ---- work and repairs ----

sync_machine::action sync_machine::delivered() { return begin_comparing(); }

sync_machine::action sync_machine::repaired(bool is_all_written) {
  enter(state::live);
  if (!is_all_written) return repair_wanted();
  pause_ms_ = 0;
  return action::none;
}

void sync_machine::read_failed() { read_failed_ = inputs_in_doubt_ = true; }

void sync_machine::inputs_in_doubt() { inputs_in_doubt_ = true; }

// The pauses grow until everything is written.
sync_machine::action sync_machine::repair_wanted() {
  if (std::exchange(waiting_, true)) return action::none;
  pause_ms_ = std::clamp(2 * pause_ms_, first_pause_ms, longest_pause_ms);
  return action::wait;
}

// Compares the outputs again, and the inputs, too, when their copies are in doubt.
sync_machine::action sync_machine::timer_fired() {
  waiting_ = false;
  if (state_ == state::idle || state_ == state::starting) return action::none;  // everything is read then
  if (scans_ > 0 || (state_ != state::live && !read_failed_)) return repair_wanted();
  return inputs_in_doubt_ ? begin_reading() : begin_comparing();
}

bool sync_machine::takes_changes() const {
  return state_ != state::idle && state_ != state::starting && !(state_ == state::reading && read_failed_);
}

bool sync_machine::sends(bool is_compared) const {
  return state_ == state::live || (is_compared && state_ >= state::comparing);
}

}  // namespace ko_store
