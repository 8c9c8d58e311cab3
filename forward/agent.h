// The program between the store and the kernel: takes events of both, and after each turn of the loop that brought any
// reconciles once.
#pragma once

#include <chrono>
#include <map>
#include <set>
#include <string>

#include "global_context.h"
#include "reconcile.h"
#include "results.h"
#include "vx_mom.h"

namespace ko_forward {

class agent {
 public:
  // `settings` is borrowed. Throws std::system_error when the kernel cannot be talked to.
  agent(vx_global &global, const ko_platform::config &settings);

  // Begins to read the store and to listen to the kernel. False, with a line in the log, when that is not possible.
  bool start();

  // What was copied for each member, as JSON:
  //   {"members":[{"session":1,"s_phyid":101,"d_phyid":105,"dir":1,"acl_id":0,"packets":5,"bytes":512,"lost":0}],
  //    "since":1790000000}
  // "since" is when this process began, in seconds since 1970. Throws std::system_error.
  std::string counters_json();

 private:
  using clock = std::chrono::steady_clock;

  int32_t take_event(uint32_t is_del, const ProtobufCMessage &message);
  int32_t take_flush(const ProtobufCMessage &message);
  int32_t begin();
  bool declare();
  void reconcile_soon();
  void reconcile();
  void answer(const std::vector<wanted_member> &members);
  void tell(const wanted_member &member);
  void try_later();

  vx_global &global_;
  vx_mom_ab *store_ = nullptr;
  reconciler reconciler_;
  records records_;
  bool all_read_ = false;
  std::set<member_key> replaced_;  // since the last reconciliation
  std::set<uint32_t> flushes_;     // interface indexes, likewise
  result_book results_;
  std::map<member_key, std::string> told_;  // what the log says of each member
  std::set<std::string> warned_;
  int64_t since_;
  bool is_due_ = false;
  clock::time_point rests_until_;
  int pause_s_ = 0;
  std::string told_failure_;
  ko_platform::event_ptr due_;
  ko_platform::event_ptr news_;
  ko_platform::event_ptr retry_;
};

}  // namespace ko_forward
