// The daemon's start: without a usable platform file, without a store, and a second time. What it does then is
// soak_test's.
#include <gtest/gtest.h>

#include <thread>

#include "sandbox.h"

namespace {

using namespace harness;
using texts = std::vector<std::string>;

texts without_inputs(const sandbox &box) {
  texts out = box.texts();
  std::erase_if(out, [](const std::string &line) {
    return line.starts_with("4 u_monitor.mirror_lspan_info") || line.starts_with("4 p_policy");
  });
  return out;
}

TEST(daemon_start, without_a_usable_platform_file) {
  sandbox box;
  box.platform_file("{\n  \"store\": {,}\n}");
  box.start_daemon();
  EXPECT_EQ(box.daemon().wait(), 0);
  const std::string errors = read_file(box.folder() + "/stderr");
  EXPECT_EQ(count_of(errors, "/etc/ko_platform/platform.json:2:13: malformed JSON"), 1U) << errors;
  EXPECT_EQ(count_of(errors, "mom_ab init fail"), 1U) << errors;
}

TEST(daemon_start, without_a_store) {
  sandbox box;
  box.start_daemon();
  eventually([&] { return count_of(box.log(), "cannot be used") == 1; }, "a word about the store");
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // time for several attempts
  EXPECT_EQ(count_of(box.log(), "cannot be used: No such file or directory"), 1U) << box.log();
  box.start_server();
  producer others(box.socket());
  others.set(session({.session = 1, .s_ifx = 11, .d_ifx = 12}));
  others.flush();
  ASSERT_TRUE(box.settle());
  EXPECT_EQ(without_inputs(box).size(), 4U);
  EXPECT_EQ(count_of(box.log(), "cannot be used"), 1U) << box.log();
}

TEST(daemon_start, a_second_instance_ends) {
  sandbox box;
  box.start_server();
  box.start_daemon();
  ASSERT_TRUE(box.settle());
  const pid_t first = box.daemon().pid();
  process second;
  box.start_daemon(second);
  EXPECT_EQ(second.wait(), 256 - 11);
  EXPECT_EQ(count_of(box.log(), "lock lockfile failed"), 1U);
  EXPECT_EQ(box.daemon().pid(), first);
  EXPECT_TRUE(box.settle());
}

}  // namespace
