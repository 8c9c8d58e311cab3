// The daemon and the tool behind the access lists of the sample configuration: nothing is missing, nothing is too much,
// and whichever right is taken away is named, and used again as soon as it is back.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "cli.h"
#include "sandbox.h"
#include "store/layout.h"

namespace {

using namespace harness;
using words = std::vector<std::string>;

// The rights of the sample's line for `user`; the parentheses of selectors are words of their own.
words sample_rights(const std::string &user) {
  std::istringstream file(read_file(SAMPLE_CONFIGURATION));
  std::string line;
  while (std::getline(file, line) && !line.starts_with("user " + user + " ")) {
  }
  for (size_t at = 0; (at = line.find_first_of("()", at)) != std::string::npos; at += 3)
    line.replace(at, 1, std::string{' ', line[at], ' '});
  words rights = split(line);
  std::erase_if(rights, [](const std::string &word) { return word.find_first_of("+%~&()") != 0; });
  return rights;
}

// Sets the rights of `user`, without the one at `left_out`.
void grant(client &server, const std::string &user, words rights, size_t left_out) {
  if (left_out < rights.size()) rights[left_out].clear();
  words command{"ACL", "SETUSER", user, "reset", "on", ">secret"};
  std::remove_copy(rights.begin(), rights.end(), std::back_inserter(command), "");
  ASSERT_EQ(server.run(command), "OK");
}

bool is_right(const std::string &word) { return word != "(" && word != ")"; }

// Whether a line of the log says that `right` is missing: the command, or the message of the key or channel.
bool tells(const std::string &log, std::string right) {
  const size_t name = right[0] == '+' ? 1 : right.find_last_of("~:&") + 1;
  right = right[0] == '+' ? "'" + right.substr(name) + "' command" : right.substr(name, right.find('*') - name);
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);)
    if (line.find(right) != std::string::npos &&
        (line.find("NOPERM") != std::string::npos || line.find("is refused") != std::string::npos))
      return true;
  return false;
}

// Events that need every right: records of all kinds come and go, and an announcement that has to be read again.
void play(const sandbox &box) {
  const member stays{.session = 1, .s_ifx = 11, .d_ifx = 12}, goes{.session = 2, .s_ifx = 21, .d_ifx = 22};
  producer others(box.socket());
  for (const record &what : {session(stays), session(goes), membership(31, 7), result(stays, 3), result({9, 1, 2})})
    others.set(what);
  others.del(session(goes));
  others.flush();
  std::string garbled;
  ko_store::append_announcement({{}, ko_store::change_kind::set, session(stays).key, "\xff"}, garbled);
  others.announce(4, "u_monitor.mirror_lspan_info", garbled);
  others.flush();
  client(box.socket()).run({"PUBLISH", "ko_lspan.request", R"({"request":"status","reply":"ko_reply.1"})"});
}

bool read_or_refused(const std::string &log) {
  return log.find("lspan ds over.") != std::string::npos || log.find("NOPERM") != std::string::npos;
}

TEST(acl, the_daemon_needs_and_names_each_right) {
  const words rights = sample_rights("ko_lspan");
  ASSERT_GT(rights.size(), 20U);
  sandbox box;
  box.use_socket(box.socket(), R"(,"user":"ko_lspan","password":"secret")");
  box.start_server();
  client server(box.socket());
  std::vector<std::string> complete;
  for (size_t missing = rights.size(); missing <= rights.size(); --missing) {  // first of all, none
    const bool all = missing == rights.size();
    if (!all && !is_right(rights[missing])) continue;
    SCOPED_TRACE(all ? "all rights" : "without " + rights[missing]);
    server.run({"FLUSHALL"});
    grant(server, "ko_lspan", rights, missing);
    std::filesystem::remove(box.folder() + "/log");
    box.start_daemon();
    if (!eventually([&] { return read_or_refused(box.log()); }, "the first read")) return;
    play(box);
    if (!all && !eventually([&] { return tells(box.log(), rights[missing]); }, "its name")) ADD_FAILURE() << box.log();
    grant(server, "ko_lspan", rights, rights.size());
    if (!box.settle()) return;
    if (all) {
      complete = box.dump();
      EXPECT_EQ(box.log().find("NOPERM"), std::string::npos) << box.log();
    }
    eventually([&] { return box.dump() == complete; }, "the records: " + difference(box.dump(), complete));
    box.daemon().stop();
  }
}

// The last of these needs the right to listen only.
TEST(acl, the_tool_needs_and_names_each_right) {
  const words rights = sample_rights("lspanctl");
  ASSERT_GT(rights.size(), 20U);
  sandbox box;
  box.use_socket(box.socket(), R"(,"user":"lspanctl","password":"secret")");
  const std::string file = box.folder() + "/sessions";
  write_file(file, R"({"sessions":[{"session":1,"source":5,"target":9},{"session":2,"target":9,"vlans":"7"}]})");
  const std::string lines =
      "group join 2 7;session add 1 --source 5 --target 9;result 1 --source 5 --target 9;session show;session export;"
      "group show;check;records;session apply " +
      file +
      ";result 1 --source 5 --target 9 --delete;"
      "session del 2 --target 9;group leave 7;status;watch --for 1";
  box.start_server();
  client server(box.socket());
  for (size_t missing = 0; missing <= rights.size(); ++missing) {
    if (missing < rights.size() && !is_right(rights[missing])) continue;
    const std::string gone = missing < rights.size() ? rights[missing] : "";
    grant(server, "lspanctl", rights, missing);
    harness::producer answers(box.socket());
    answers.set(harness::relayed({2, 0, 9, 3}));  // an answer that goes with its member
    answers.flush();
    std::ostringstream said;
    int status = 0;
    std::istringstream commands(lines);
    for (std::string line; status == 0 && std::getline(commands, line, ';');) {
      const std::vector<std::string> before = box.dump();
      const std::string platform = " --platform-file " + box.folder() + "/etc/ko_platform/platform.json";
      status = lspanctl::run(split(line + platform), said, said, false);
      EXPECT_TRUE(status == 0 || box.dump() == before) << "without " << gone << ": " << line;
      if ((line == "check" || line == "status") && said.str().find("NOPERM") == std::string::npos)
        status = 0;  // no daemon runs
    }
    EXPECT_EQ(status, gone.empty() ? 0 : 1) << said.str();
    EXPECT_TRUE(gone.empty() || tells(said.str(), gone)) << "without " << gone << ": " << said.str();
    server.run({"FLUSHALL"});
  }
}

// As installed: the daemon's login is in the shared platform file, the tool's in its own; one that is named goes before
// both.
TEST(acl, the_tool_has_a_login_of_its_own) {
  sandbox box;
  box.start_server();
  client server(box.socket());
  for (const char *user : {"ko_lspan", "lspanctl"}) grant(server, user, sample_rights(user), SIZE_MAX);
  const std::string store = R"({"store":{"socket":")" + box.socket() + R"(","password":"secret","user":)";
  const std::string ports = R"(,"ports":{"ge1":{"ifx":1,"phyid":101},"ge2":{"ifx":2,"phyid":102}})";
  box.platform_file(store + R"("ko_lspan"})" + ports + "}");
  write_file(box.folder() + "/named.json", R"({"store":{"socket":"/nowhere"}})");
  const auto add = [&](const std::string &named) {
    process tool;
    std::filesystem::remove(box.folder() + "/stderr");
    box.start(tool, {"env", "LSPANCTL_PLATFORM_FILE=" + named, LSPANCTL_PROGRAM, "session", "add", "1", "--source",
                     "ge1", "--target", "ge2"});
    tool.wait();
    return read_file(box.folder() + "/stderr");
  };
  EXPECT_NE(add("").find("to user ko_lspan: NOPERM"), std::string::npos);
  write_file(box.folder() + "/etc/ko_platform/lspanctl.json", store + R"("lspanctl"}})");
  EXPECT_EQ(add(""), "added session 1, ge1 -> ge2, both; no daemon answers\n");
  EXPECT_NE(add(box.folder() + "/named.json").find("interface ge1 is unknown"), std::string::npos);
}

// What an account that was taken over cannot be used for.
TEST(acl, nothing_else_is_allowed) {
  const std::string both =
      "FLUSHALL;FLUSHDB;KEYS *;SCAN 0;RANDOMKEY;CONFIG GET *;CONFIG SET dir /;EVAL return 0;SCRIPT LOAD return;"
      "FUNCTION LIST;ACL LIST;CLIENT LIST;CLIENT KILL TYPE normal;MODULE LIST;REPLICAOF NO ONE;SAVE;MONITOR;SHUTDOWN;"
      "DEL u_monitor.mirror_result_info;SWAPDB 4 8;RENAME u_monitor.mirror_result_info u_monitor.span_x_info;"
      "GET secret;HGET foreign k;HSET foreign k v;HSET u_monitor.foreign k v;PUBLISH foreign x;SUBSCRIBE foreign;"
      "PUBLISH 8:u_monitor.foreign x;PUBLISH 6:u_monitor.mirror_result_info x;SUBSCRIBE __keyspace@0__:x;PSUBSCRIBE *;";
  const std::string daemon =
      "HSET u_monitor.mirror_lspan_info k v;HDEL u_monitor.mirror_lspan_info k;PUBLISH 4:u_monitor.mirror_lspan_info x;"
      "HSET p_policy.data_intf_conf k v;HDEL p_policy.data_intf_conf k;SUBSCRIBE 8:u_monitor.span_dst_info;"
      "PUBLISH ko_lspan.request x;SUBSCRIBE ko_reply.1;CLIENT GETNAME";
  const std::string tool =
      "HSET u_monitor.span_dst_info k v;HDEL u_monitor.span_mtp_info k;HSET u_bridge.udp_pt_learn k v;"
      "HDEL u_bridge.udp_pt_learn k;PUBLISH 6:u_bridge.udp_flushdyn x;PUBLISH 8:u_monitor.span_dst_info x";
  sandbox box;
  box.start_server();
  client server(box.socket());
  for (const auto &[user, own] : {std::pair<std::string, std::string>("ko_lspan", daemon), {"lspanctl", tool}}) {
    const words rights = sample_rights(user);
    grant(server, user, rights, rights.size());
    client taken_over(box.socket());
    ASSERT_EQ(taken_over.run({"AUTH", user, "secret"}), "OK");
    std::istringstream commands(both + own);
    for (std::string command; std::getline(commands, command, ';');)
      EXPECT_EQ(taken_over.run(split(command)).substr(0, 14), "(error) NOPERM") << user << " " << command;
  }
}

}  // namespace
