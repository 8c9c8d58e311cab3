// The daemon is killed after any of its writes and started again; what is in the store then must be what a daemon
// started fresh writes, and a further restart must write nothing.
//
// A run tries a sample; with KO_CRASH_ALL in the environment, every write.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <random>

#include "proxy.h"
#include "sandbox.h"

namespace {

using namespace harness;
using lines = std::vector<std::string>;

struct step {
  ko_store::change_kind kind;
  record what;
};
using steps = std::vector<step>;

// Changes of so few records that they collide: sessions fight for a target, have two, change their kind in place.
class scenario {
 public:
  explicit scenario(unsigned seed) : random_(seed) {}

  steps next(size_t count) {
    steps out;
    for (; count > 0; --count) out.push_back(next());
    return out;
  }

 private:
  uint32_t below(size_t bound) { return static_cast<uint32_t>(random_() % bound); }

  step next() {
    const uint32_t what = below(10);
    if (what < 3 && !there_.empty()) return {ko_store::change_kind::del, there_[below(there_.size())]};
    if (what == 3 && !members_.empty())
      return {ko_store::change_kind::set, result(members_[below(members_.size())], below(3), below(2))};
    there_.push_back(what < 6 ? membership(300 + below(6), below(4)) : any_session());
    return {ko_store::change_kind::set, there_.back()};
  }

  record any_session() {
    const uint32_t number = below(8);
    member of{.session = 1 + number, .s_ifx = 100 + below(3), .d_ifx = 200 + below(4), .dir = 1 + below(2)};
    of.apply = below(3);
    if (of.apply == 1) of.acl = 5 + below(2);
    if (of.apply == 2) of.vlans.assign(below(4), 1 + below(9));
    of.mtp_switch = below(2), of.sample = below(3);
    const uint32_t group = 1 + below(3);
    if (number % 4 == 3) of.module = 5, of.d_ifx = group;  // as the forwarding side names it
    members_.push_back(of);
    if (number % 4 == 3) of.d_ifx = group_target(group);
    return session(of);
  }

  std::minstd_rand random_;
  std::vector<record> there_;
  std::vector<member> members_;
};

class crash : public ::testing::Test {
 protected:
  crash() : wire_(box_.folder() + "/wire.sock", box_.socket()) {
    box_.use_socket(box_.folder() + "/wire.sock");
    box_.start_server();
  }

  void feed(const steps &all) {
    producer others(box_.socket());
    for (const step &one : all) others.change(one.what.change(one.kind));
    others.flush();
  }

  // Starts the daemon and gives it `events`; it dies after its `count`-th write, or when all is done. 0: only then.
  // Returns its writes, but for those that settle needs.
  size_t live(size_t count, const steps &events) {
    wire_.kill_after(count, [this] { box_.daemon().signal(SIGKILL); });
    box_.start_daemon();
    if (count == 0) box_.settle();
    feed(events);
    if (!box_.settle()) eventually([this] { return wire_.killed(); }, "the server's end of a kill");
    const size_t writes = wire_.transactions();
    wire_.kill_after(0, {});
    box_.daemon().stop();
    return count == 0 ? writes - 4 : writes;
  }

  void check(size_t k, size_t j, const steps &events, const steps &meanwhile) {
    SCOPED_TRACE("killed after write " + std::to_string(k) + " and after write " + std::to_string(j) +
                 " of the recovery");
    box_.restore({});
    live(k, events);
    feed(meanwhile);
    if (j > 0) live(j, {});
    const lines inputs = box_.inputs();
    live(0, {});
    const lines end = box_.dump();
    EXPECT_EQ(live(0, {}), 0U) << "a restart writes";
    box_.restore(inputs);
    live(0, {});
    EXPECT_EQ(difference(end, box_.dump()), "");
  }

  sandbox box_;
  proxy wire_;
};

TEST_F(crash, any_write_may_be_the_last) {
  const bool all = std::getenv("KO_CRASH_ALL") != nullptr;
  size_t runs = 0;
  for (unsigned seed = 1; seed <= 4 && !HasFailure(); ++seed) {
    scenario random(seed);
    const steps events = random.next(120), meanwhile = random.next(seed == 1 ? 0 : 12);
    box_.restore({});
    const size_t writes = live(0, events);
    ASSERT_GT(writes, 100U);
    const size_t stride = all ? 1 : writes / 6;
    for (size_t k = 1 + seed % stride; k <= writes; k += stride, ++runs)
      check(k, k % 3 == 0 ? 0 : 1 + k * seed % 40, events, meanwhile);
  }
  std::cout << runs << " kills\n";
}

}  // namespace
