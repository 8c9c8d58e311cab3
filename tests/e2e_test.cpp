// The whole road: other processes write records, the daemon answers with its own.
#include <gtest/gtest.h>

#include <thread>

#include "sandbox.h"

namespace {

using namespace harness;
using texts = std::vector<std::string>;

struct step {
  const char *what;
  std::vector<record> set;
  std::vector<record> deleted;
  texts expected;  // everything in the store but what this test wrote
};

texts without_inputs(const sandbox &box) {
  texts out = box.texts();
  std::erase_if(out, [](const std::string &line) {
    return line.starts_with("4 u_monitor.mirror_lspan_info") || line.starts_with("4 p_policy");
  });
  return out;
}

std::string src_key(const std::string &numbers) { return " {t_user=\"ko_lspan\" session_id=" + numbers + " dir=1}"; }

std::string unlearned(const char *ifx) {
  return std::string("6 u_bridge.udp_pt_learn {t_app_name=\"ko_lspan\" t_ifx=") + ifx + "} learn=\"unfwd_notlearn\"";
}

TEST(e2e, records_of_a_session) {
  const member port{.session = 1, .s_ifx = 11, .d_ifx = 12};
  const member group{.session = 2, .s_ifx = 21, .d_ifx = group_target(7), .module = 5};
  const std::string target = std::to_string(group_target(7));
  const texts port_records{unlearned("12"),
                           "8 u_monitor.span_dst_info" + src_key("1 s_phyid=11 d_phyid=12") + " role=1",
                           "8 u_monitor.span_mtp_info {t_user=\"ko_lspan\" session_id=1 d_phyid=12} role=1",
                           "8 u_monitor.span_port_src_info" + src_key("1 s_phyid=11 d_phyid=12") + " role=1"};
  const texts group_records{
      "8 u_monitor.span_dst_info" + src_key("2 s_phyid=21 d_phyid=" + target) + " module_type=5 role=1",
      "8 u_monitor.span_mtp_info {t_user=\"ko_lspan\" session_id=2 d_phyid=" + target + "} module_type=5 role=1",
      "8 u_monitor.span_port_src_info" + src_key("2 s_phyid=21 d_phyid=" + target) + " module_type=5 role=1"};
  const auto with = [](texts lines, const texts &more) {
    lines.insert(lines.end(), more.begin(), more.end());
    std::sort(lines.begin(), lines.end());
    return lines;
  };
  const std::string index = " {t_user=\"%\" session_num=1 s_ifx=11 d_ifx=12 dir=1} result=3";
  const auto result_line = [&](const char *db, const char *user) {
    return db + std::string(" u_monitor.mirror_result_info") + std::string(index).replace(index.find('%'), 1, user);
  };
  const std::vector<step> steps{
      {"a member is added", {session(port)}, {}, port_records},
      {"its result is relayed",
       {result(port, 3)},
       {},
       with(port_records, {result_line("8", "du_span"), result_line("4", "ko_lspan")})},
      {"results of unknown members go",
       {result({.session = 9, .s_ifx = 11, .d_ifx = 12})},
       {},
       with(port_records, {result_line("8", "du_span"), result_line("4", "ko_lspan")})},
      {"the member is deleted", {}, {session(port)}, {result_line("4", "ko_lspan")}},
      {"a target without members", {session(group)}, {}, with(group_records, {result_line("4", "ko_lspan")})},
      {"members join",
       {membership(31, 7), membership(32, 7)},
       {},
       with(group_records, {result_line("4", "ko_lspan"), unlearned("31"), unlearned("32")})},
      {"one moves away", {membership(31, 8)}, {}, with(group_records, {result_line("4", "ko_lspan"), unlearned("32")})},
      {"one leaves", {}, {membership(32, 7)}, with(group_records, {result_line("4", "ko_lspan")})},
      {"one comes back", {membership(31, 7)}, {}, with(group_records, {result_line("4", "ko_lspan"), unlearned("31")})},
      {"the session is deleted", {}, {session(group)}, {result_line("4", "ko_lspan")}},
  };
  sandbox box;
  box.start_server();
  box.start_daemon();
  producer others(box.socket());
  for (const step &now : steps) {
    for (const record &what : now.set) others.set(what);
    for (const record &what : now.deleted) others.del(what);
    others.flush();
    ASSERT_TRUE(box.settle()) << box.log();
    EXPECT_EQ(without_inputs(box), now.expected) << now.what;
  }
}

TEST(e2e, start_without_a_usable_platform_file) {
  sandbox box;
  box.platform_file("{\n  \"store\": {,}\n}");
  box.start_daemon();
  EXPECT_EQ(box.daemon().wait(), 0);
  const std::string errors = read_file(box.folder() + "/stderr");
  EXPECT_EQ(count_of(errors, "/etc/ko_platform/platform.json:2:13: malformed JSON"), 1U) << errors;
  EXPECT_EQ(count_of(errors, "mom_ab init fail"), 1U) << errors;
}

TEST(e2e, start_without_a_store) {
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

TEST(e2e, a_second_instance_ends) {
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
