#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <thread>

#include "network.h"
#include "sandbox.h"

namespace {

using namespace harness;

// The tests' own eyes: by hand, a mirror that is right, one that has gaps and one that is there twice.
TEST(what_the_tests_see, losses_and_doubles) {
  make_port("ge1"), make_port("ge2");
  tap wire("ge1-w"), port("ge1"), analyser("ge2-w");
  const std::string mirror =
      "filter add dev ge1 ingress pref 7 handle 0x1 bpf bytecode '1,6 0 0 4294967295' "
      "action mirred egress mirror dev ge2 continue";
  shell("tc qdisc add dev ge1 clsact && tc " + mirror);
  listener kernel;
  {
    traffic right(wire, port, {&analyser}, {.tags = {5}});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    right.stop();
    EXPECT_EQ(right.every_one(), right.through());
    EXPECT_EQ(right.every_one(), right.of(0));
    EXPECT_GT(right.sent(), 10000U);
    std::cout << right.sent() << " frames\n";
  }
  EXPECT_TRUE(kernel.heard().empty());
  {
    traffic wrong(wire, port, {&analyser});
    shell("tc filter del dev ge1 ingress && sleep 0.01 && tc " + mirror);
    const uint32_t before = wrong.sent();
    shell("tc " + mirror.substr(0, mirror.find("handle")) + mirror.substr(mirror.find("bpf")));
    wrong.stop();
    EXPECT_GT(wrong.of(0).lost, 0U);
    EXPECT_GT(wrong.of(0).doubled, 0U);
    EXPECT_EQ(0U, wrong.of(0, 0, before).doubled);
    EXPECT_EQ(wrong.every_one(), wrong.through());
  }
  EXPECT_GE(kernel.heard().size(), 3U);
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  const std::string missing = harness::enter_network();
  if (missing.empty()) return RUN_ALL_TESTS();
  std::cout << "Skipped, not a single test ran: this machine lacks " << missing << "\n";
  return std::getenv("KO_SKIP_NOTHING") == nullptr ? 77 : 1;
}
