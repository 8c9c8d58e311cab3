// Sequences of session, membership and result events over a universe so small that everything collides, with calls,
// translations and allocations failing in between. After each event the daemon's memory must be sound; after each in
// which nothing failed, it must also hold what the event asked for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "choices.h"
#include "driver.h"

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
  uint32_t below(uint32_t bound) { return from_.below(bound); }
  bool one_in(uint32_t count) { return from_.one_in(count); }

  void restart();
  void arm_failures();
  void disarm_failures();
  member any_member();
  member known_member();
  // Each sends one event, and returns what is wrong after it if nothing failed, or "".
  const char *event();
  const char *set_event(const member &what);
  const char *del_event(const member &what);

  choices &from_;
  std::vector<uint32_t> phyids_;  // by interface; 0 stands for no port
  bool draining_ = false;         // more members go than come
  std::vector<member> members_;   // set and not deleted
  uint64_t failed_ = 0;
  uint64_t ended_ = 0;
};

}  // namespace driver
