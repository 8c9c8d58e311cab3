// Where a registration stands between the store and its own copies.
//
//   idle --declared--> starting --up--> reading --all read--> delivering --> comparing --> repairing --> live
//                        ^                                                                              |
//                        +-------------------------------- down, pause ---------------------------------+
//
// reading: the stored inputs come in. delivering: the handlers are given what differs from the copies; what they write
// is only noted. comparing: the stored outputs come in; what is left over in them is deleted. repairing: what is wanted
// and was not there is written. Changes that are announced meanwhile wait. live: changes are delivered and written as
// they come; a repair goes back to reading or comparing.
//
// The machine is told what happens and answers what is to be done next. It has no store, no timer and no clock.
#pragma once

#include <cstddef>

namespace ko_store {

class sync_machine {
 public:
  enum class state { idle, starting, reading, delivering, comparing, repairing, live };

  enum class action {
    none,
    read,     // ask for every input; then scans_begun
    deliver,  // deliver what was read, in slices; then delivered
    compare,  // ask for every output that is compared; then scans_begun
    repair,   // write what is missing, in slices; then repaired
    wait      // call timer_fired after pause_ms
  };

  // What happens.
  action engine_up();  // the store can be read
  void engine_down();  // it cannot; or the sources are declared anew
  void paused();       // nothing is to be read until resumed
  action resumed();
  void scan_begun();
  action scans_begun();                  // all of them
  action scan_ended();                   // it was read to its end, or cannot be read
  void read_failed();                    // this read cannot be used; repair_wanted follows, or the end of the scans
  void inputs_in_doubt();                // the next repair reads the inputs, too
  action delivered();                    // everything that was read
  action repaired(bool is_all_written);  // everything was sent; false: something was refused lately
  action repair_wanted();
  action timer_fired();

  state now() const { return state_; }
  bool is_live() const { return state_ == state::live; }
  int pause_ms() const { return pause_ms_; }
  // Whether a page that comes still counts.
  bool expects_pages() const { return scans_ > 0; }
  // Whether a change that is announced is still news: it is read anyway before a read began, or while one fails.
  bool takes_changes() const;
  // Whether a write may go out. `is_compared`: else the comparison of the outputs brings it about.
  bool sends(bool is_compared) const;

 private:
  void enter(state next);
  action begin_reading();
  action begin_comparing();

  state state_ = state::idle;
  bool up_ = false;  // the engine is
  bool paused_ = false;
  bool read_failed_ = false;
  bool inputs_in_doubt_ = false;
  bool waiting_ = false;  // for the timer
  size_t scans_ = 0;      // under way
  int pause_ms_ = 0;
};

const char *to_string(sync_machine::state state);

}  // namespace ko_store
