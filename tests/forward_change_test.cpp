// Copies while everything around them changes: records, members, links, the programs and the store themselves.
//
// A run kills the forwarding program at a sample of points; with KO_CRASH_ALL in the environment, at every one.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <random>
#include <thread>

#include "forwarding.h"

namespace {

using namespace harness;
using namespace std::chrono_literals;

// Session 1 copies VLAN 5 of ge1 to ge6, session 7 all that ge1 receives to group 7, of which ge4 is always a member.
member steady(uint32_t more_vlans = 0) {
  return {.session = 1, .s_ifx = 1, .d_ifx = 6, .dir = 1, .apply = 2, .vlans = {1U << 5 | more_vlans << 6}};
}
member group_of_four() { return {.session = 7, .s_ifx = 1, .d_ifx = group_target(7), .module = 5}; }
member other(uint32_t i) {
  return {.session = 20 + i, .s_ifx = 1, .d_ifx = 2 + i % 2, .dir = 1 + i % 3, .mtp_switch = i == 1, .sample = i};
}

class changes : public testing::Test {
 protected:
  void begin() {
    net.start();
    net.set(steady());
    net.join(4, 7);
    net.set(group_of_four());
    net.settle();
    ASSERT_EQ(0U, net.code(steady()));
    ASSERT_EQ(0U, net.code(group_of_four()));
  }

  // Frames of VLAN 5 on ge1 while `what` happens: each comes to ge6 and ge4 exactly once.
  void under_traffic(const std::function<void()> &what) {
    await_carrier({"ge1-w", "ge1", "ge6", "ge4"});
    tap wire("ge1-w"), port("ge1"), single("ge6-w"), grouped("ge4-w");
    traffic frames(wire, port, {&single, &grouped}, {.tags = {5}});
    what();
    while (frames.sent() < 1000) std::this_thread::sleep_for(1ms);
    frames.stop();
    EXPECT_EQ(frames.every_one(), frames.through());
    EXPECT_EQ(frames.every_one(), frames.of(0));
    EXPECT_EQ(frames.every_one(), frames.of(1));
  }

  void restart() {
    net.program.stop();
    net.start();
    net.settle();
  }

  static std::string more_ports() {
    std::string all = R"(,"twin1":{"ifx":31,"phyid":131},"twin2":{"ifx":32,"phyid":131},"zero":{"ifx":33,"phyid":0})";
    for (int i = 101; i <= 140; ++i)
      all += ",\"many" + std::to_string(i - 100) + "\":{\"ifx\":" + std::to_string(i) +
             ",\"phyid\":" + std::to_string(100 + i) + "}";
    return all;
  }

  forwarding net{R"(,"acls":{"8":"no such words"})", more_ports()};
};

TEST_F(changes, of_records_members_and_processes) {
  begin();
  const std::string before = net.kernel();
  under_traffic([&] {
    for (uint32_t i = 0; i < 100; ++i) {
      net.set(steady(i));
      i % 4 < 2 ? net.set(other(i % 4)) : net.del(other(i % 4 - 2));
      i % 2 == 0 ? net.join(5, 7) : net.leave(5);
      if (i % 10 == 0) net.settle();
    }
    net.set(steady());
    net.settle();
  });
  EXPECT_EQ(before, net.kernel());
  under_traffic([&] { restart(); });
  under_traffic([&] {
    net.box.daemon().stop();
    net.box.start_daemon();
    net.settle();
  });
  under_traffic([&] {
    net.restart_store();
    net.settle();
  });
  EXPECT_EQ(before, net.kernel());
}

TEST_F(changes, a_member_that_joins_gets_all_from_then_on) {
  begin();
  shell("ip link set ge5 nomaster");  // so that it gets copies only
  tap wire("ge1-w"), port("ge1"), comes("ge5-w");
  traffic frames(wire, port, {&comes});
  net.join(5, 7);
  net.settle();
  const uint32_t in = frames.sent();
  std::this_thread::sleep_for(20ms);
  const uint32_t out = frames.sent();
  net.leave(5);
  net.settle();
  const uint32_t gone = frames.sent();
  std::this_thread::sleep_for(20ms);
  frames.stop();
  EXPECT_EQ((traffic::tally{0, 0, out - in - traffic::burst}), frames.of(0, in + traffic::burst, out));
  EXPECT_EQ(0U, frames.of(0).doubled);
  EXPECT_EQ(0U, frames.of(0, gone + traffic::burst).copied);
}

TEST_F(changes, a_restart_changes_nothing) {
  begin();
  for (uint32_t i = 0; i < 4; ++i) net.set(other(i));
  net.settle();
  net.program.stop();
  eventually([] { return shell("ip -o link show | grep 'state DOWN' || true").empty(); }, "links that are up");
  listener kernel;
  net.writes();
  net.start();
  eventually([&] { return net.rests(); }, "rest");
  EXPECT_EQ(0U, net.writes());
  EXPECT_EQ(std::vector<std::string>{}, kernel.heard());
  net.set(other(4));
  net.settle();
  EXPECT_GT(net.writes(), 0U);
  EXPECT_FALSE(kernel.heard().empty());
}

// ---- killed at every point ----

TEST_F(changes, any_point_may_be_the_last) {
  begin();
  const std::string start = net.kernel();
  const std::function<void()> scenario[] = {
      [&] { net.set(other(0)); },
      [&] { net.set(steady(3)); },
      [&] { net.join(5, 7); },
      [&] { net.set(other(1)), net.set(other(2)); },
      [&] { net.join(3, 7), net.leave(5); },
      [&] { shell("ip link set ge2 nomaster"); },
      [&] { net.del(other(0)), net.set(steady(4)); },
      [&] { shell("ip link set ge2 master sw"); },
      [&] { net.leave(3), net.set(other(3)); },
  };
  const auto undo = [&] {
    for (uint32_t i = 0; i < 4; ++i) net.del(other(i));
    net.set(steady());
  };
  const bool all = std::getenv("KO_CRASH_ALL") != nullptr;
  std::minstd_rand random(1);
  std::string right;
  size_t points = 1, runs = 0;
  for (size_t k = 0; k <= points; k += k == 0 || all ? 1 : points / 10 + random() % (points / 10), ++runs) {
    SCOPED_TRACE("killed at point " + std::to_string(k));
    under_traffic([&] {
      net.program.stop();
      net.start();
      assassin killer(net.program.pid(), k);
      const auto struck = [&] { return killer.struck(); };
      net.settle(struck);
      for (const auto &step : scenario) step(), net.settle(struck);
      killer.join();
      if (k == 0) points = killer.points();
      EXPECT_TRUE(k == 0 || killer.struck() || k > points * 3 / 4) << "what comes in one turn differs";
      restart();
    });
    if (k == 0) right = net.kernel();
    EXPECT_EQ(right, net.kernel());
    undo();
    net.settle();
    EXPECT_EQ(start, net.kernel());
    if (HasFailure()) break;
  }
  std::cout << runs << " runs, " << points << " points\n";
}

// ---- whatever state the kernel is in ----

TEST_F(changes, by_others_are_mended_or_left_alone) {
  shell(
      "tc qdisc add dev ge2 clsact && tc filter add dev ge2 ingress pref 7 u32 match u32 0 0 action mirred egress "
      "mirror dev ge3 && bridge link set dev ge3 learning off && bridge link set dev ge5 flood off && "
      "tc qdisc add dev ge5 root pfifo limit 77");
  const std::string untouched = net.kernel(true);
  begin();
  for (uint32_t i = 0; i < 4; ++i) net.set(other(i));
  net.settle();
  const std::string right = net.kernel();
  const char *harm[] = {
      "tc filter del dev ge1 ingress",
      "tc filter del dev ge1 egress",
      "tc qdisc del dev ge1 clsact",
      "bridge link set dev ge4 learning on flood on",
      "bridge link set dev ge2 mcast_flood on locked off",
      "ip link set ge4 nomaster && ip link set ge4 master sw",
      "ip link del ge6 && ip link add ge6 group 9 type veth peer name ge6-w && ip link set ge6 up && ip link set ge6-w "
      "up",
      "tc filter show dev ge1 ingress | sed -n 's/.* index \\([0-9]*\\) ref .*/\\1/p' | while read i; do "
      "tc actions change action mirred egress mirror dev ge3 index $i; done",
  };
  for (const char *each : harm)
    for (const bool running : {true, false}) {
      SCOPED_TRACE(each);
      if (!running) net.program.stop();
      shell(each);
      if (!running) net.start();
      net.settle();
      eventually([&] { return net.kernel() == right; }, "what is right");
      ASSERT_EQ(right, net.kernel());
    }
  net.program.stop();
  net.ask({"SELECT", "8"});
  EXPECT_NE("0", net.ask({"HLEN", "u_monitor.mirror_result_info"}));
  net.clear();
  EXPECT_EQ(untouched, net.kernel(true));
  EXPECT_EQ("0", net.ask({"HLEN", "u_monitor.mirror_result_info"}));
}

TEST_F(changes, without_the_right_to_make_them_are_told) {
  begin();
  net.program.stop();
  shell("tc qdisc del dev ge1 clsact");
  net.box.start(net.program, {"setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin", KO_LSPAN_FWD_PROGRAM});
  net.expect_code(steady(), EPERM);
  net.expect_code(group_of_four(), EPERM);
  for (const char *line :
       {"this program lacks CAP_NET_ADMIN: it makes no copies", "the kernel is not as the records say: "})
    EXPECT_NE(net.box.log().find(line), std::string::npos) << net.box.log();
  restart();
  net.expect_code(steady(), 0);
  under_traffic([&] { net.settle(); });
}

// ---- links ----

TEST_F(changes, of_links_are_answered_and_followed) {
  begin();
  struct row {
    const char *what;
    uint32_t code;  // of the steady session then
  };
  const row rows[] = {
      {"ip link del ge6", ENODEV},
      {"ip link add ge6 group 9 type veth peer name ge6-w && ip link set ge6 up && ip link set ge6-w up", 0},
      {"ip link del ge1", ENODEV},
      {"ip link add ge1 group 9 type veth peer name ge1-w && ip link set ge1 up && ip link set ge1-w up", 0},
      {"ip link set ge1 master sw", 0},
      {"ip link set ge1 nomaster", 0},
      {"ip link set ge1 down", 0},
      {"ip link set ge1 up", 0},
      {"ip link set ge6 down", ENETDOWN},
      {"ip link set ge6 up", 0},
      {"ip link set ge6-w down", ENETDOWN},
      {"ip link set ge6-w up", 0},
      {"ip link set ge6 name away", ENODEV},
      {"ip link set away name ge6", 0},
      {"ip link set ge1 name away", ENODEV},
      {"ip link set away name ge1", 0},
  };
  for (const row &now : rows) {
    SCOPED_TRACE(now.what);
    shell(now.what);
    net.expect_code(steady(), now.code);
    net.settle();
    EXPECT_EQ(now.code, net.code(steady()));
    if (now.code == 0 && !shell("ip link show up ge1").empty()) under_traffic([] { std::this_thread::sleep_for(5ms); });
  }
  // A group serves the members that are there.
  net.join(9, 7);
  under_traffic([&] { net.settle(); });
  EXPECT_EQ(static_cast<uint32_t>(ENODEV), net.code(group_of_four()));
  net.leave(9);
  net.expect_code(group_of_four(), 0);
  // More announcements than a socket holds, while nobody reads them.
  const std::string right = net.kernel();
  net.program.signal(SIGSTOP);
  shell("seq 12000 | sed 's/.*/link set ge3 alias a&/' | ip -batch - && tc filter del dev ge1 ingress");
  net.program.signal(SIGCONT);
  eventually([&] { return net.kernel() == right; }, "what is right");
  EXPECT_EQ(1U, count_of(net.box.log(), "faster than they were read"));
  under_traffic([&] { net.settle(); });
}

TEST_F(changes, among_two_thousand_ports) {
  begin();
  shell("seq 1000 | sed 's/.*/link add many& group 9 type veth peer name many&-w/' | ip -batch -");
  shell("ip link del ge6");
  net.expect_code(steady(), ENODEV);
  make_port("ge6");
  net.expect_code(steady(), 0);
  under_traffic([&] { restart(); });
  // A group of more members than a filter has actions.
  shell("seq 40 | sed 's/.*/link set many& up\\nlink set many&-w up/' | ip -batch -");
  for (uint32_t i = 1; i <= 40; ++i) net.join(100 + i, 8);
  const member large{.session = 8, .s_ifx = 1, .d_ifx = group_target(8), .module = 5};
  net.set(large);
  net.settle();
  ASSERT_EQ(0U, net.code(large));
  await_carrier({"many1", "many40"});
  tap wire("ge1-w"), port("ge1"), first("many1-w"), last("many40-w");
  traffic frames(wire, port, {&first, &last});
  for (uint32_t i = 2; i < 40; ++i) net.leave(100 + i);
  net.settle();
  for (uint32_t i = 2; i < 40; ++i) net.join(100 + i, 8);
  net.settle();
  frames.stop();
  EXPECT_EQ(frames.every_one(), frames.of(0));
  EXPECT_EQ(frames.every_one(), frames.of(1));
}

TEST_F(changes, of_one_session_leave_the_target_of_another_quiet) {
  begin();
  member second = other(0);
  second.session = 60;
  const auto learned = [] { return !shell("bridge fdb show dev ge2 dynamic").empty(); };
  tap("ge2-w").send({frame({})});
  EXPECT_TRUE(learned());
  net.set(other(0)), net.set(second);
  net.settle();
  const std::string quiet = shell("bridge -d link show dev ge2");
  EXPECT_NE(std::string::npos, quiet.find("learning off flood off"));
  EXPECT_FALSE(learned());
  net.del(other(0));  // the daemon takes the learning record away
  net.settle();
  EXPECT_EQ(quiet, shell("bridge -d link show dev ge2"));
  net.del(second);
  net.settle();
  EXPECT_NE(std::string::npos, shell("bridge -d link show dev ge2").find("learning on flood on"));
}

// ---- what cannot be ----

TEST_F(changes, that_cannot_be_are_refused) {
  begin();
  make_port("twin1"), make_port("twin2"), make_port("zero");
  shell("tc qdisc add dev ge5 ingress");
  const auto from_one = [](uint32_t to) { return member{.session = 50, .s_ifx = 1, .d_ifx = to, .mtp_switch = 1}; };
  struct row {
    const char *what;
    std::vector<std::pair<member, uint32_t>> members;  // and their codes
  };
  using change = void (*)(member &);
  const auto but = [&](change how, uint32_t code) {
    member out = from_one(3);
    how(out);
    return std::vector<std::pair<member, uint32_t>>{{out, code}};
  };
  const row rows[] = {
      {"nothing wrong", {{from_one(3), 0}}},
      {"no such target", {{from_one(9), ENODEV}}},
      {"no source", but([](member &m) { m.s_ifx = 0; }, EINVAL)},
      {"a circle",
       {{{.session = 51, .s_ifx = 2, .d_ifx = 3, .dir = 2}, 0},
        {{.session = 52, .s_ifx = 3, .d_ifx = 2, .dir = 2}, ELOOP}}},
      {"every VLAN", but([](member &m) { m.apply = 2, m.vlans.assign(128, 0xFFFFFFFF); }, 0)},
      {"no VLAN", but([](member &m) { m.apply = 2; }, 0)},
      {"the rarest sample", but([](member &m) { m.sample = 0xFFFFFFFF; }, 0)},
      {"an ACL of no words", but([](member &m) { m.apply = 1, m.acl = 8; }, EINVAL)},
      {"a target with the id of another", {{from_one(31), EINVAL}}},
      {"a target with the id 0", {{from_one(33), EINVAL}}},
      {"a foreign qdisc", {{{.session = 53, .s_ifx = 5, .d_ifx = 3, .dir = 2}, EBUSY}}},
      {"beside it", {{{.session = 53, .s_ifx = 5, .d_ifx = 3, .dir = 1}, 0}}},
  };
  const std::string before = net.kernel();
  under_traffic([&] {
    for (const row &now : rows) {
      SCOPED_TRACE(now.what);
      const size_t seen = net.box.log().size();
      for (const auto &[each, code] : now.members) net.set(each);
      net.settle();
      for (const auto &[each, code] : now.members) {
        EXPECT_EQ(code, net.code(each));
        EXPECT_EQ(code != 0,
                  net.box.log().find(
                      "answered with " + std::string(code == 0 ? "?" : strerrorname_np(static_cast<int>(code))),
                      seen) != std::string::npos);
        net.del(each);
      }
      net.settle();
    }
  });
  EXPECT_EQ(before, net.kernel());
}

}  // namespace
