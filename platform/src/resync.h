// Resync: the process executes its program again, in place. What is new then is all that a start reads: the program
// itself, the platform file, level and log files, the store. The process id stays, and so do arguments, environment,
// and the files that hold a lock.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "global_context.h"

namespace ko_platform {

class resync {
 public:
  // From now on SIGHUP asks for a resync, one that was sent while the process started counts; and so does the request
  // "resync". Who asked this process for it before it was executed again, gets the answer. `context` is borrowed.
  explicit resync(global_context &context);
  resync(const resync &) = delete;
  resync &operator=(const resync &) = delete;

  // Ends the event loop as soon as nothing is under way any more; the answer goes to the channel `reply`, unless that
  // is empty.
  void ask(const std::string &reply);

  // Ends the event loop at once, whatever is under way. Nobody is answered.
  void start_anew();

  // To be called when the loop has ended. Returns only when nothing was asked for, or when the program could not be
  // executed. Then true says that everything goes on as it was, and the loop has to run again; false that the process
  // ends: it cannot go on after start_anew.
  bool carry_out();

 private:
  using clock = std::chrono::steady_clock;

  std::string obstacle() const;
  void take_over_replies();
  void answer_done();
  void look();
  void execute();
  void give_up(const std::string &why);

  global_context &context_;
  std::string program_;  // path of the executable file, as it was when the process started
  bool due_ = false;
  bool is_anew_ = false;              // start_anew asked for it
  std::vector<std::string> replies_;  // channels of those who asked
  clock::time_point latest_;          // when writes under way are not waited for any more
  event_ptr signal_;
  event_ptr poll_;
};

}  // namespace ko_platform
