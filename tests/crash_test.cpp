// The daemon is killed inside or after any of its transactions and started again; what is in the store then must be
// what a daemon started fresh writes, and what one that was never killed has written.
//
// Events come to it one by one, so that each has a transaction of its own. A run tries a sample; with KO_CRASH_ALL in
// the environment, every transaction.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <set>

#include "proxy.h"
#include "sandbox.h"

namespace {

using namespace harness;
using lines = std::vector<std::string>;

struct step {
  bool is_del;
  record what;
};

struct row {
  char sign;  // + or -
  uint32_t from, count;
  std::function<record(uint32_t)> what;
};

member port(uint32_t i) { return {.session = 1 + i, .s_ifx = 100 + i, .d_ifx = 200 + i, .mtp_switch = i % 2}; }
member second_port(uint32_t i) {
  return {.session = 1 + i, .s_ifx = 150 + i, .d_ifx = 200 + i, .dir = 2, .mtp_switch = i % 2};
}
member acl(uint32_t i) {
  return {.session = 20 + i, .s_ifx = 110 + i, .d_ifx = 220 + i, .acl = 5 + i, .apply = 1, .sample = 100 * i};
}
member acl_changed(uint32_t i) {
  member out = acl(i);
  return out.mtp_switch = 1, out.sample = 7, out;
}
member vlan(uint32_t i) {
  return {.session = 30 + i, .s_ifx = 0, .d_ifx = 230 + i, .apply = 2 + i % 2, .vlans = {1U << i, 0, 3}};
}
member vlan_changed(uint32_t i) {
  member out = vlan(i);
  return out.vlans = {9, 8, 7, 6}, out;
}
member group(uint32_t i) {
  return {.session = 40 + i, .s_ifx = 140 + i, .d_ifx = group_target(1 + i), .module = 5, .mtp_switch = i == 2};
}
member group_peer(uint32_t i) {  // as the forwarding side names it
  member out = group(i);
  return out.d_ifx = 1 + i, out;
}
member stranger(uint32_t i) { return {.session = 90 + i, .s_ifx = 1, .d_ifx = 2}; }
record joins(uint32_t i) { return membership(300 + i, 1 + i % 3); }
record moves(uint32_t i) { return membership(300 + i, 1 + (i + 1) % 3); }

template <member (*make)(uint32_t)>
record config(uint32_t i) {
  return session(make(i));
}
template <member (*make)(uint32_t)>
record answer(uint32_t i) {
  return result(make(i), i, i % 2);
}

const std::vector<row> scenario{
    {'+', 0, 6, config<port>},
    {'+', 0, 6, config<second_port>},
    {'+', 0, 4, config<acl>},
    {'+', 0, 6, joins},
    {'+', 0, 4, config<vlan>},
    {'+', 0, 3, config<group>},
    {'+', 0, 5, answer<port>},
    {'+', 0, 1, answer<acl>},
    {'+', 0, 1, answer<group_peer>},
    {'+', 2, 1, answer<group_peer>},
    {'+', 1, 2, moves},
    {'+', 6, 4, joins},
    {'-', 4, 2, joins},
    {'-', 0, 2, config<acl>},
    {'+', 1, 1, config<acl>},
    {'-', 1, 2, config<second_port>},
    {'+', 0, 3, answer<vlan>},
    {'-', 1, 1, config<group>},
    {'+', 3, 1, config<acl_changed>},
    {'-', 1, 1, config<vlan>},
    {'+', 0, 2, answer<stranger>},
    {'-', 5, 1, config<port>},
    {'-', 5, 1, config<second_port>},
    {'+', 1, 1, config<group>},
    {'-', 7, 1, joins},
    {'+', 2, 1, config<vlan_changed>},
    {'+', 5, 1, config<port>},
};
// What a daemon that was never killed leaves behind: the results of members that are gone.
const std::vector<record> left_behind{relayed(acl(0), 0), relayed(vlan(1), 1, 1)};

struct variant {
  const char *what;
  std::vector<row> rows;  // while the daemon is down
  std::vector<record> left_behind;
};

const std::vector<variant> variants{
    {"left alone", {}, {}},
    {"added to",
     {{'+', 6, 2, config<port>}, {'+', 10, 3, joins}, {'+', 3, 1, config<group>}, {'+', 6, 1, answer<port>}},
     {}},
    {"taken from",
     {{'-', 1, 1, config<port>},
      {'-', 3, 1, config<second_port>},
      {'-', 3, 1, config<port>},
      {'-', 0, 1, joins},
      {'-', 0, 1, config<vlan>},
      {'-', 0, 1, config<group>}},
     {relayed(port(1), 1, 1), relayed(port(3), 3, 1), relayed(vlan(0), 0), relayed(group_peer(0), 0)}},
    {"changed", {{'+', 2, 1, config<acl_changed>}, {'+', 3, 1, moves}, {'+', 3, 1, config<vlan_changed>}}, {}},
};

// Two sessions, and a group, fight for one target; a session has two targets; members change their kind in place.
const std::vector<row> rough{
    {'+', 0, 1, [](uint32_t) { return session({.session = 60, .s_ifx = 1, .d_ifx = 201, .mtp_switch = 0}); }},
    {'+', 0, 1, [](uint32_t) { return session({.session = 2, .s_ifx = 2, .d_ifx = 202, .mtp_switch = 0}); }},
    {'+', 0, 1, [](uint32_t) { return membership(203, 1); }},
    {'+', 0, 2,
     [](uint32_t i) {
       member m = port(i);
       return m.apply = 2, m.vlans = {1}, session(m);
     }},
    {'+', 0, 1,
     [](uint32_t) {
       member m = acl(2);
       return m.module = 5, session(m);
     }},
    {'-', 0, 1, [](uint32_t) { return session({.session = 60, .s_ifx = 1, .d_ifx = 201}); }},
};

class crash : public ::testing::Test {
 protected:
  crash() : wire(box.folder() + "/wire.sock", box.socket()) {
    box.use_socket(box.folder() + "/wire.sock");
    box.start_server();
    wire.pace(true);
  }

  size_t feed(const std::vector<row> &rows) {
    producer others(box.socket());
    size_t events = 0;
    for (const row &now : rows)
      for (uint32_t i = now.from; i < now.from + now.count; ++i, ++events)
        now.sign == '+' ? others.set(now.what(i)) : others.del(now.what(i));
    others.flush();
    return events;
  }

  // Starts the daemon and runs `meanwhile`; it dies where proxy::kill_after says, or when all is done. 0: only then.
  void live(size_t count, const std::function<void()> &meanwhile) {
    wire.kill_after(count, [this] { box.daemon().signal(SIGKILL); });
    box.start_daemon();
    if (count == 0) box.settle();
    meanwhile();
    if (!box.settle()) eventually([this] { return wire.killed(); }, "the server's end of a kill");
    wire.kill_after(0, {});
    box.daemon().stop();
  }

  // The connections are cut after so many bytes of the daemon's; whatever it publishes is in `clean`.
  void check_cut(size_t bytes, const std::set<std::string> &clean) {
    SCOPED_TRACE("cut after byte " + std::to_string(bytes));
    box.restore({});
    wire.forget();
    wire.cut_after(bytes);
    live(0, [&] { feed(scenario); });
    wire.cut_after(0);
    for (const std::string &request : published()) EXPECT_TRUE(clean.contains(request)) << request;
    lines end = box.dump();  // before the cut, or after it: a daemon that goes on may leave results behind, or not
    for (const record &what : left_behind) std::erase(end, what.line());
    EXPECT_EQ(difference(end, fresh(box.inputs())), "");
  }

  std::set<std::string> published() {
    std::set<std::string> out;
    for (const std::string &command : wire.commands())
      if (command.starts_with("PUBLISH 6:u_bridge.udp_flushdyn")) out.insert(command);
    return out;
  }

  lines fresh(const lines &inputs) {
    const auto known = fresh_.find(inputs);
    if (known != fresh_.end()) return known->second;
    box.restore(inputs);
    live(0, [] {});
    return fresh_[inputs] = box.dump();
  }

  lines never_killed(const variant &how) {
    box.restore({});
    live(0, [&] {
      feed(scenario);
      box.settle();
      feed(how.rows);
    });
    return box.dump();
  }

  void check(size_t k, size_t j, const variant &how, const lines &reference, bool is_rough) {
    SCOPED_TRACE(std::string(how.what) + (is_rough ? ", rough" : "") + ", killed at " + std::to_string(k) + " and at " +
                 std::to_string(j) + " of the recovery");
    box.restore({});
    live(k, [&] {
      feed(scenario);
      if (is_rough) feed(rough);
    });
    feed(how.rows);
    if (j > 0) live(j, [] {});
    const lines inputs = box.inputs();
    live(0, [] {});
    const lines end = box.dump();
    EXPECT_EQ(difference(end, fresh(inputs)), "");
    if (is_rough) return;
    lines expected = end;
    for (const auto *list : {&left_behind, &how.left_behind})
      for (const record &what : *list) expected.push_back(what.line());
    EXPECT_EQ(difference(reference, expected), "");
  }

  sandbox box;
  proxy wire;
  std::map<lines, lines> fresh_;  // what a daemon makes of these inputs
};

TEST_F(crash, any_write_may_be_the_last) {
  const bool all = std::getenv("KO_CRASH_ALL") != nullptr;
  size_t runs = 0;
  std::minstd_rand random(1);
  for (const variant &how : variants) {
    const lines reference = never_killed(how);
    box.restore({});
    wire.forget();
    live(0, [&] { EXPECT_GE(feed(scenario), 60U); });
    const size_t points = 2 * (wire.transactions() - 4);  // not those of the marks
    ASSERT_GT(points, 60U);  // on a busy machine events come together, and share a transaction
    const size_t stride = all ? 1 : points / 5;
    for (size_t k = all ? 1 : 1 + random() % stride; k <= points; k += stride, ++runs)
      check(k, k % 3 == 0 ? 0 : 1 + random() % 4, how, reference, !all && runs % 4 == 3);
    if (all)
      for (size_t k = 1; k <= points; k += 7, ++runs) check(k, random() % 4, how, {}, true);
    if (HasFailure()) break;
  }
  std::cout << runs << " kills\n";
}

TEST_F(crash, any_byte_may_be_the_last_of_a_connection) {
  box.restore({});
  wire.forget();
  live(0, [&] { feed(scenario); });
  const std::set<std::string> clean = published();
  ASSERT_FALSE(clean.empty());
  const size_t all = wire.bytes(), stride = std::getenv("KO_CRASH_ALL") != nullptr ? 1 : all / 25;
  for (size_t bytes = 1 + all % 7; bytes < all && !HasFailure(); bytes += stride) check_cut(bytes, clean);
}

}  // namespace
