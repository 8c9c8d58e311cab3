// Copies on real packets: the daemon, the forwarding program and a kernel with ports, in namespaces of the test's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <thread>

#include "forwarding.h"

namespace {

using namespace harness;
using namespace std::chrono_literals;

constexpr uint32_t rx = 1, tx = 2, both = 3;

// The tests' own eyes: mirrors by hand, one that is right, one with a gap, one that is there twice.
TEST(what_the_tests_see, losses_and_doubles) {
  make_port("ge1"), make_port("ge2");
  tap wire("ge1-w"), port("ge1"), analyser("ge2-w");
  const std::string place = "filter add dev ge1 ingress pref 7 ", handle = "handle 0x1 ";
  const std::string mirror = "bpf bytecode '1,6 0 0 4294967295' action mirred egress mirror dev ge2 continue";
  shell("tc qdisc add dev ge1 clsact && tc " + place + handle + mirror);
  listener kernel;
  traffic right(wire, port, {&analyser}, {.tags = {5}});
  std::this_thread::sleep_for(100ms);
  right.stop();
  EXPECT_EQ(right.every_one(), right.through());
  EXPECT_EQ(right.every_one(), right.of(0));
  EXPECT_GT(right.sent(), 1000U);
  EXPECT_TRUE(kernel.heard().empty());

  traffic wrong(wire, port, {&analyser});
  const auto change = [&wrong](const std::string &command) {
    shell(command);
    for (const uint32_t seen = wrong.sent(); wrong.sent() < seen + 3 * traffic::burst;)
      std::this_thread::sleep_for(1ms);
  };
  change("tc filter del dev ge1 ingress");
  change("tc " + place + handle + mirror);
  const uint32_t before = wrong.sent();
  change("tc " + place + mirror);
  wrong.stop();
  EXPECT_GT(wrong.of(0).lost, 0U);
  EXPECT_GT(wrong.of(0).doubled, 0U);
  EXPECT_EQ(0U, wrong.of(0, 0, before).doubled);
  EXPECT_EQ(wrong.every_one(), wrong.through());
  EXPECT_GE(kernel.heard().size(), 3U);
  shell("ip link del group 9");
}

// Where a frame is sent so that ge1 receives or sends it.
struct road {
  const char *name;
  uint32_t dir;
  const char *from;
};
constexpr road roads[] = {{"rx", rx, "ge1-w"}, {"tx through the bridge", tx, "ge2-w"}, {"tx raw", tx, "ge1"}};

struct kind {
  const char *name;
  member what;
  std::function<bool(const shape &)> wanted;
  std::vector<const char *> analysers = {"ge5-w"};

  bool wants(const shape &of, const road &on) const {
    const uint32_t dir = what.s_ifx == 0 && on.from == std::string("ge2-w") ? rx : on.dir;  // ge2 is a source then
    return (what.dir & dir) != 0 && wanted(of);
  }
};

std::vector<uint32_t> map_of(const std::function<bool(uint32_t)> &has) {
  std::vector<uint32_t> words(128);
  for (uint32_t vlan = 0; vlan < 4096; ++vlan) words[vlan / 32] |= static_cast<uint32_t>(has(vlan)) << vlan % 32;
  return words;
}

bool is_to_4001(const shape &of) { return of.udp_port == 4001 && of.tags.size() < 2; }

// Expressions of the platform file's ACLs, numbered from 1. They mean the same wherever the kernel keeps the tag.
const struct {
  const char *expression;
  std::function<bool(const shape &)> wanted;
} acls[] = {
    {"", [](const shape &) { return true; }},
    {"udp dst port 4001", is_to_4001},
    {"not udp dst port 4001", std::not_fn(is_to_4001)},
    {"udp and not dst port 4001", [](const shape &of) { return of.tags.size() < 2 && !is_to_4001(of); }},
    {"vlan", [](const shape &of) { return !of.tags.empty(); }},
    {"not vlan", [](const shape &of) { return of.tags.empty(); }},
    {"vlan 5", [](const shape &of) { return !of.tags.empty() && of.tags[0] == 5; }},
    {"vlan 5 and ip", [](const shape &of) { return of.tags == std::vector<uint16_t>{5}; }},
    {"vlan 5 and udp dst port 4001",
     [](const shape &of) { return of.tags == std::vector<uint16_t>{5} && is_to_4001(of); }},
    {"vlan 5 and vlan 6",
     [](const shape &of) {
       return of.tags == std::vector<uint16_t>{5, 6};
     }},
    {"vlan 5 and vlan 6 and udp dst port 4001",
     [](const shape &of) {
       return of.tags == std::vector<uint16_t>{5, 6} && of.udp_port == 4001;
     }},
    {"ether proto 0x8100", [](const shape &of) { return of.tags.size() > 1; }},
    {"udp[4:2] > 1400", [](const shape &of) { return of.tags.size() < 2 && of.size > 1500; }},
};

std::string acls_text() {
  std::string text;
  for (size_t i = 0; i < std::size(acls); ++i)
    text += (i == 0 ? "\"" : ",\"") + std::to_string(1 + i) + "\":\"" + acls[i].expression + '"';
  return R"(,"acls":{)" + text + "}";
}

class copies : public testing::Test {
 protected:
  copies() { net.start(); }

  // Sends the frames of these shapes, and compares byte for byte what comes to the analysers.
  void check(const kind &now, const std::vector<shape> &shapes) {
    for (const road &on : roads) {
      SCOPED_TRACE(std::string(now.name) + ", " + on.name);
      tap from(on.from, true);
      std::vector<std::unique_ptr<tap>> analysers;
      for (const char *each : now.analysers) analysers.push_back(std::make_unique<tap>(each, true));
      std::vector<std::string> frames, wanted;
      for (uint32_t i = 0; i < shapes.size(); ++i) {
        frames.push_back(frame(shapes[i], i));
        if (now.wants(shapes[i], on)) wanted.push_back(frames.back());
      }
      from.send(frames);
      for (const auto &analyser : analysers) {
        const std::vector<std::string> got = analyser->received(wanted.size());
        EXPECT_EQ(wanted.size(), got.size());
        EXPECT_TRUE(wanted == got);
      }
    }
  }

  void copy_and_check(const kind &now, const std::vector<shape> &shapes) {
    net.set(now.what);
    net.settle();
    EXPECT_EQ(0U, net.code(now.what)) << now.name;
    check(now, shapes);
    net.del(now.what);
    net.settle();
  }

  forwarding net{acls_text()};
};

TEST_F(copies, are_exact) {
  const auto any = [](const shape &) { return true; };
  const auto none = [](const shape &) { return false; };
  const kind kinds[] = {
      {"port", {.session = 1, .s_ifx = 1, .d_ifx = 5, .dir = both}, any},
      {"port, received", {.session = 1, .s_ifx = 1, .d_ifx = 5, .dir = rx}, any},
      {"port, sent", {.session = 1, .s_ifx = 1, .d_ifx = 5, .dir = tx}, any},
      {"VLANs of a port",
       {.session = 2, .s_ifx = 1, .d_ifx = 5, .dir = both, .apply = 2, .vlans = map_of([](uint32_t vlan) {
                                                                         return vlan == 0 || vlan == 5 || vlan == 4094;
                                                                       })},
       [](const shape &of) { return !of.tags.empty() && (of.tags[0] == 5 || of.tags[0] == 4094); }},
      {"VLAN without a port",
       {.session = 3, .s_ifx = 0, .d_ifx = 5, .dir = rx, .apply = 3, .vlans = {1U << 6}},
       [](const shape &of) { return !of.tags.empty() && of.tags[0] == 6; }},
      {"sampling, every frame", {.session = 4, .s_ifx = 1, .d_ifx = 5, .dir = both, .sample = 1}, any},
      {"sampling, next to none", {.session = 4, .s_ifx = 1, .d_ifx = 5, .dir = both, .sample = 0xFFFFFFFF}, none},
      {"group",
       {.session = 7, .s_ifx = 1, .d_ifx = group_target(7), .dir = both, .module = 5},
       any,
       {"ge4-w", "ge5-w"}},
  };
  std::vector<shape> shapes;
  for (const std::vector<uint16_t> &tags :
       std::vector<std::vector<uint16_t>>{{}, {5}, {6}, {0}, {5, 6}, {6, 5}, {0, 5}, {4094}})
    for (const uint16_t udp_port : {4000, 4001})
      for (const size_t size : {64, 1514}) shapes.push_back({tags, udp_port, size});
  net.join(4, 7), net.join(5, 7);
  for (const kind &now : kinds) copy_and_check(now, shapes);
  for (uint32_t i = 0; i < std::size(acls); ++i) {
    const member by_acl{.session = 5, .s_ifx = 1, .d_ifx = 5, .dir = both, .acl = 1 + i, .apply = 1};
    copy_and_check({acls[i].expression, by_acl, acls[i].wanted}, shapes);
  }
  // Without a session they get what is flooded, as before.
  check({"flooded", {.session = 0, .s_ifx = 0, .d_ifx = 5, .dir = rx}, any, {"ge4-w", "ge5-w"}}, shapes);
}

TEST_F(copies, of_any_map) {
  std::minstd_rand random(1);
  const std::function<bool(uint32_t)> maps[] = {
      [](uint32_t) { return true; },
      [](uint32_t vlan) { return vlan % 2 == 0; },
      [&](uint32_t) { return random() % 2; },
      [&](uint32_t) { return random() % 200 == 0; },
      [](uint32_t vlan) { return vlan == 4095; },
      [](uint32_t vlan) { return vlan % 97 > 40; },
  };
  std::vector<shape> shapes;
  for (uint16_t vlan = 0; vlan < 4096; ++vlan) shapes.push_back({.tags = {vlan}});
  net.set({.session = 1, .s_ifx = 1, .d_ifx = 5, .dir = both});  // its source record is left over
  for (const auto &has : maps) {
    const member what{.session = 1, .s_ifx = 1, .d_ifx = 5, .dir = both, .apply = 2, .vlans = map_of(has)};
    net.set(what);
    net.settle();
    check({"map", what,
           [&](const shape &of) {
             const uint16_t vlan = of.tags[0];
             return vlan != 0 && (what.vlans[vlan / 32] >> vlan % 32 & 1) != 0;
           }},
          shapes);
  }
}

TEST_F(copies, of_every_tenth) {
  net.set({.session = 1, .s_ifx = 1, .d_ifx = 5, .sample = 10});
  net.settle();
  tap wire("ge1-w"), port("ge1"), analyser("ge5-w");
  traffic frames(wire, port, {&analyser});
  while (frames.sent() < 40000) std::this_thread::sleep_for(1ms);
  frames.stop();
  const double n = frames.sent();
  EXPECT_NEAR(n / 10, static_cast<double>(frames.of(0).copied), 5 * std::sqrt(n * 0.09));
  EXPECT_EQ(0U, frames.of(0).doubled);
}

// A request is answered behind the results of what was announced before it, also when both come at once.
TEST_F(copies, are_answered_before_requests) {
  net.settle();
  client announced(net.box.socket());
  net.program.signal(SIGSTOP);
  net.set({.session = 1, .s_ifx = 1, .d_ifx = 5});
  net.box.settle();
  for (const char *channel : {"8:u_monitor.mirror_result_info", "ko_reply.test"}) announced.run({"SUBSCRIBE", channel});
  net.ask({"PUBLISH", "ko_lspan_fwd.request", R"({"request":"status","reply":"ko_reply.test"})"});
  net.program.signal(SIGCONT);
  std::string first = announced.next();
  if (first[0] == '-') first = announced.next();  // the result of what the settling waited for goes
  EXPECT_EQ('+', first[0]);
  EXPECT_EQ('{', announced.next()[0]);
}

// What lspanctl counts is what came to the analysers, whatever became of the filters meanwhile.
TEST_F(copies, are_counted) {
  const member one{.session = 1, .s_ifx = 1, .d_ifx = 5, .dir = both};
  const member grouped{.session = 7, .s_ifx = 1, .d_ifx = group_target(7), .dir = rx, .module = 5};
  struct row {
    const char *what;
    std::function<void()> change;
    size_t targets;  // of the group then
  };
  const row rows[] = {
      {"begun", [&] { net.set(one), net.join(4, 7), net.set(grouped); }, 1},
      {"the program is killed", [&] { net.program.stop(), net.start(); }, 1},
      {"another filter in its place",
       [&] {
         net.set({1, 1, 5, both, 0, 0, 0, 0, 1, 1});
       },
       1},
      {"a target joins", [&] { net.join(6, 7); }, 2},
      {"the first target leaves", [&] { net.leave(4); }, 1},
      {"others delete the filters", [] { shell("tc filter del dev ge1 ingress && tc qdisc del dev ge1 clsact"); }, 1},
      {"the source is made again",
       [] {
         shell("ip link del ge1");
         make_port("ge1");
         shell("ip link set ge1 master sw");
       },
       1},
  };
  std::vector<std::string> frames;
  size_t bytes = 0;
  for (uint32_t i = 0; i < 40; ++i) frames.push_back(frame({.size = i % 2 == 0 ? 64U : 1514U}, i));
  for (const std::string &each : frames) bytes += each.size();
  size_t n_one = 0, n_grouped = 0;  // times that all frames were copied
  for (const row &now : rows) {
    SCOPED_TRACE(now.what);
    now.change();
    net.settle();
    net.expect_code(grouped, 0);
    tap analyser("ge5-w", true);
    for (const char *from : {"ge1-w", "ge1"}) {
      tap(from, true).send(frames);
      EXPECT_TRUE(frames == analyser.received(frames.size())) << from;
    }
    n_one += 2, n_grouped += now.targets;
    const std::string counted =
        shell(LSPANCTL_PROGRAM " session show --counters --json --platform-file " + net.box.folder() +
              "/etc/ko_platform/platform.json | grep -E '\"(packets|bytes)\"'");
    std::string expected;
    for (const size_t n : {n_one, n_grouped})
      expected += "    \"packets\": " + std::to_string(n * frames.size()) +
                  ",\n    \"bytes\": " + std::to_string(n * bytes) + "\n";
    EXPECT_EQ(expected, counted);
  }
}

}  // namespace
