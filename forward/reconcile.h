// Brings the kernel to what the records say. The order of the changes stands here, and nowhere else.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "kernel.h"
#include "saved.h"
#include "wanted.h"

namespace ko_forward {

// What was copied.
struct counts {
  uint64_t packets = 0;
  uint64_t bytes = 0;
  uint64_t lost = 0;  // packets of these that a target did not take

  counts &operator+=(const counts &more);
};

struct member_counts {
  member_key key;
  counts copied;
};

class reconciler {
 public:
  // `settings` is borrowed. Throws std::system_error when the kernel cannot be talked to.
  explicit reconciler(const ko_platform::config &settings);

  kernel &with() { return kernel_; }
  const port_table &ports() const { return ports_; }

  // One reconciliation with `from`; `flushes` are the interface indexes whose dynamic entries are to be forgotten.
  // Returns an answer for each member. Throws std::system_error; what was left undone then, the next one does.
  std::vector<wanted_member> run(const records &from, const std::set<uint32_t> &flushes);
  // What could not be done, and may be possible later without any announcement; empty: all is done.
  const std::string &failure() const { return failure_; }
  // Settings may have changed what they mean: names in ACLs are looked up again.
  void forget_programs() { programs_.forget(); }

  // Takes everything of this program's out of the kernel, as far as failure() does not say otherwise.
  void clear();

  // What was copied for each member since it is there, as far as this process saw it; asks the kernel. Of a filter that
  // others took away, it is what was seen last.
  std::vector<member_counts> count();

 private:
  using failures = std::map<std::pair<place, mark>, outcome>;

  void pass(const wanted &target, const std::set<uint32_t> &flushes);
  void quiet_ports(const wanted &target, const std::set<uint32_t> &flushes);
  void add_flushes(const std::set<uint32_t> &flushes, std::map<int, port_change> &changes) const;
  std::set<int> set_ports(const std::map<int, port_change> &changes);
  void make_hooks(const wanted &target);
  void change_filters(const wanted &target);
  void put_filters(const std::vector<filter_change> &changes);
  void remove_filters(const std::vector<kernel_filter> &gone);
  void give_ports_back(const std::set<int> &quiet);
  void keep_counts(const kernel_filter &old, const std::vector<copy_action> &kept);
  void keep_lost_counts();
  void fail(std::string what);
  std::string name_of(int ifindex) const;
  void note_failure(const place &at, const mark &marked, const outcome &what);
  void answer(wanted &target) const;

  const ko_platform::config &settings_;
  port_table ports_;
  kernel kernel_;
  saved_file saved_;
  program_cache programs_;
  failures failures_;
  std::string failure_;
  std::map<mark, member_key> members_;
  std::map<mark, counts> counted_before_;  // by actions that are no more
};

}  // namespace ko_forward
