// Sequences of session, membership and result events over a universe so small that everything collides, with calls,
// translations and allocations failing in between. After each event the daemon's memory must be sound; after each in
// which nothing failed, it and the store must also hold what the event asked for.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "choices.h"
#include "driver.h"
#include "mirror_list.h"

namespace driver {

class random_events {
 public:
  explicit random_events(choices &from) : from_(from) { restart(); }
  random_events(const random_events &) = delete;
  random_events &operator=(const random_events &) = delete;
  ~random_events() { reset(); }

  // Sends one event. Returns what is wrong then, or "".
  std::string step();

  uint64_t failed() const { return failed_; }  // events in which something failed
  uint64_t ended() const { return ended_; }    // sessions that came to their end

 private:
  using check = std::function<void()>;  // of what must hold after an event in which nothing failed

  uint32_t below(uint32_t bound) { return from_.below(bound); }
  bool one_in(uint32_t count) { return from_.one_in(count); }
  uint32_t phyid(uint32_t ifx) const;
  uint32_t target_phyid(const member &of) const;

  void restart();
  void arm_failures();
  void disarm_failures();
  check event();
  member any_member();
  member known_member();
  check set_event(const member &what);
  check del_event(const member &what);
  check join_event(uint32_t ifx, uint32_t group_id);
  check leave_event(uint32_t ifx);
  check report_event();

  void describe(const char *format, uint32_t a, uint32_t b = 0, uint32_t c = 0);
  bool expect(bool holds, const char *what);
  src_info *source(const member &of) const;
  dst_info *pair(const member &of) const;
  bool source_or_pair_stored(const char *type, const member &of) const;
  bool target_stored(const member &of) const;

  static constexpr uint32_t sessions = 3, interfaces = 6, groups = 4;
  using named_targets = std::array<const mtp_info *, groups>;  // by group
  static named_targets named();

  choices &from_;
  uint32_t phyids_[interfaces + 1] = {};
  const char *format_ = "";  // of the last event, for messages; and its numbers
  uint32_t numbers_[3] = {};
  std::string wrong_;            // what is wrong after it
  bool draining_ = false;        // more members go than come
  std::vector<member> members_;  // set and not deleted
  uint64_t failed_ = 0;
  uint64_t ended_ = 0;
};

}  // namespace driver
