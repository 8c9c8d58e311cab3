// The operator's tool: tables of command lines with their exit status and what they say, on a server of the test's own.
#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <random>
#include <sstream>
#include <thread>

#include "catalog.h"
#include "cli.h"
#include "errors.h"
#include "member.h"
#include "record_json.h"
#include "sandbox.h"
#include "store_client.h"
#include "u_bridge.pb-c.h"
#include "values.h"

namespace {

using harness::client;
using harness::eventually;
using harness::read_file;
using harness::write_file;
using texts = std::vector<std::string>;

struct ran {
  int status;
  std::string says;  // standard output, then standard error; paths as DIR
  bool operator==(const ran &) const = default;
};

std::ostream &operator<<(std::ostream &out, const ran &what) { return out << what.status << '\n' << what.says; }

std::string replaced(std::string text, const std::string &from, const std::string &to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

// A switch with ports ge5, ge7, ge8, ge9 (physical ids 100 more) and a server.
class ctl : public testing::Test {
 protected:
  ctl() {
    std::string ports;
    for (const char *number : {"5", "7", "8", "9"})
      ports += (ports.empty() ? "" : ",") + replaced(R"("geN":{"ifx":N,"phyid":10N})", "N", number);
    box_.platform_file(R"({"store":{"socket":")" + box_.socket() + R"("},"ports":{)" + ports + R"(},"log":{"file":")" +
                       box_.folder() + R"(/log"}})");
    box_.start_server();
    daemon_.emplace(box_.socket());
    daemon_->run({"SUBSCRIBE", "ko_lspan.request"});
  }

  ran tool(const std::string &line) const {
    std::istringstream words(replaced(line, "DIR", box_.folder()));
    std::vector<std::string> arguments{"--platform-file=" + platform_file_};
    for (std::string word; words >> word;) arguments.push_back(word == "''" ? "" : word);
    std::ostringstream out;
    std::ostringstream err;
    const int status = lspanctl::run(arguments, out, err, false);
    return {status, replaced(out.str() + err.str(), box_.folder(), "DIR")};
  }

  struct row {
    const char *line;
    int status;
    std::string says;
  };
  void expect(const std::vector<row> &rows) const {
    for (const row &each : rows) EXPECT_EQ(tool(each.line), (ran{each.status, each.says})) << each.line;
  }
  // The state of every member: the last column.
  std::string states() const {
    std::istringstream lines(tool("session show").says);
    std::string out;
    std::string line;
    size_t column = 0;
    while (std::getline(lines, line)) {
      if (column == 0)
        column = line.find("STATE");
      else
        out += line.substr(column) + "\n";
    }
    return out;
  }
  // The records in JSON say all that stands in the store, to the byte.
  void expect_whole_json() const {
    texts packed;
    for (const lspanctl::json &each : lspanctl::json::parse(tool("records --json").says)) {
      const auto *kind = lspanctl::find_kind(each["db"], each["message"].get<std::string>());
      const auto no_name = [](const std::string &) -> uint32_t { throw lspanctl::refused("a name"); };
      packed.push_back(
          harness::any(kind->hash.db, *lspanctl::from_json(*kind->hash.type, each["record"], no_name)).line());
    }
    std::sort(packed.begin(), packed.end());
    EXPECT_EQ(packed, box_.dump());
  }
  void file(const std::string &name, const std::string &text) const { write_file(box_.folder() + "/" + name, text); }

  harness::sandbox box_;
  std::optional<client> daemon_;  // seems to be one
  std::string platform_file_ = box_.folder() + "/etc/ko_platform/platform.json";
};

// ---- bad input ----

TEST_F(ctl, wrong_use_and_refusals_change_nothing) {
  ASSERT_EQ(tool("session add 1 --source ge5 --target ge9").status, 0);
  ASSERT_EQ(tool("group join 2 ge7").status, 0);
  const texts before = box_.dump();
  const std::string add = "; see lspanctl session add --help\n";
  const auto numbers = [](const std::string &what) { return "lspanctl: " + what + ": give a number from "; };
  expect({
      {"", 2, "lspanctl: give a command; see lspanctl --help\n"},
      {"mirror", 2, "lspanctl: mirror means nothing here; see lspanctl --help\n"},
      {"session add", 2, "lspanctl: session is required" + add},
      {"session add 3", 2, "lspanctl: target: give an interface or group:ID" + add},
      {"session add 3 --target 9 --colour red", 2, "lspanctl: --colour means nothing here" + add},
      {"session add x --target 9", 2, numbers("session x") + "0 to 4294967295" + add},
      {"session add 3 --target 9 --acl 0x10", 2, numbers("acl 0x10") + "0 to 4294967295" + add},
      {"session add 3 --target 9 --vlans 10,4095", 2, numbers("VLAN 4095") + "1 to 4094" + add},
      {"session add 3 --target 9 --vlans 10,,11", 2, numbers("VLAN \"\"") + "1 to 4094" + add},
      {"session add 3 --target 9 --vlans 29-20", 2, "lspanctl: VLANs 29-20: give the lower number first" + add},
      {"session add 3 --target 9 --direction up", 2, "lspanctl: direction up: give rx, tx, both or a number" + add},
      {"session add 3 --target 9 --learning on", 2, "lspanctl: learning on: give keep or off" + add},
      {"session add 3 --target 9 --role DST", 2,
       "lspanctl: mirror_role DST: give a number or one of LOCALSPAN_SRC LOCALSPAN_DST RSPAN_SRC RSPAN_DST ERSPAN_SRC "
       "ERSPAN_DST" +
           add},
      {"session add 3 --target group:2 --module-type CPU", 2,
       "lspanctl: module type CPU has no group target; leave it out" + add},
      {"session add 3 --target 9 --module-type GROUP", 2, "lspanctl: module type GROUP needs a target group:ID" + add},
      {"session add 3 --target 6", 1,
       "lspanctl: interface 6 is not in the platform file's ports; give one of them or add it there\n"},
      {"session add 3 --target ge9 --source xe1", 1,
       "lspanctl: interface xe1 is unknown; give a number or a name of the platform file's ports\n"},
      {"session del 1 --source ge5 --target ge9 --direction rx", 1,
       "lspanctl: there is no member session 1, ge5 -> ge9, rx of owner lspanctl; lspanctl session show lists them\n"},
      {"session del 1 --source ge5 --target ge9 --owner me", 1,
       "lspanctl: there is no member session 1, ge5 -> ge9, both of owner me; --owner lspanctl has one\n"},
      {"group join 0 ge7", 2, numbers("group 0") + "1 to 4294967295; see lspanctl group join --help\n"},
      {"group leave ge7 ge8", 1, "lspanctl: interface ge8 is in no group; lspanctl group show lists them\n"},
      {"result 1 --source ge5 --target ge9 --delete", 1,
       "lspanctl: there is no result of session 1, ge5 -> ge9, both; lspanctl records --message mirror_result_info "
       "lists them\n"},
      {"records --db 5", 2,
       "lspanctl: database 5: give 4 (CONF_DB), 6 (FWD_DB) or 8 (UDP_DB); see lspanctl records --help\n"},
      {"watch --db 8 --message data_intf_conf", 2,
       "lspanctl: UDP_DB has no p_policy.data_intf_conf; leave one of --db and --message out; see lspanctl watch "
       "--help\n"},
      {"records --db 8 --message mirror_lspan_info", 2,
       "lspanctl: UDP_DB has no u_monitor.mirror_lspan_info; leave one of --db and --message out; see lspanctl records "
       "--help\n"},
      {"records --message udp_flushdyn", 2,
       "lspanctl: u_bridge.udp_flushdyn is announced and never stored; lspanctl watch shows it; see lspanctl records "
       "--help\n"},
      {"group show 77", 0, "group 77 has no interfaces, and no session targets it\n"},
      {"session set 1 --rate x", 2, numbers("rate x") + "0 to 4294967295; see lspanctl session set --help\n"},
      {"session set 7 --rate 4", 1,
       "lspanctl: there is no member session 7 of owner lspanctl; lspanctl session show lists them\n"},
      {"session del 7", 1,
       "lspanctl: there is no member session 7 of owner lspanctl; lspanctl session show lists them\n"},
      {"session del 7 --if-exists", 0, "there is no member session 7 of owner lspanctl\n"},
      {"session show --store ''", 2,
       "lspanctl: --store \"\": give the path of a socket, unix:PATH or HOST:PORT; see lspanctl session show "
       "--help\n"},
      {"session show --timeout 0", 2, numbers("--timeout 0") + "1 to 3600; see lspanctl session show --help\n"},
      {"session show --store nowhere", 2,
       "lspanctl: --store nowhere: give the path of a socket, unix:PATH or HOST:PORT; see lspanctl session show "
       "--help\n"},
      {("records --store /" + std::string(107, 's')).c_str(), 2,
       "lspanctl: --store: the path of a socket has at most 107 bytes; see lspanctl records --help\n"},
      {"session show --store DIR/none", 1,
       "lspanctl: cannot reach the store at DIR/none: No such file or directory; start it, or name another with "
       "--store\n"},
      {"session apply DIR/none.json", 1,
       "lspanctl: DIR/none.json cannot be read: No such file or directory; name a file that can\n"},
  });
  EXPECT_EQ(box_.dump(), before);
}

// What a file of sessions or events may have wrong, and the start of what is said then.
TEST_F(ctl, files_that_cannot_be_used) {
  struct bad {
    const char *command, *text, *why;
  };
  const char *apply = "session apply", *simulate = "simulate";
  for (const bad &each : std::vector<bad>{
           {apply, "{\"sessions\": [\n  {\"session\": 1,}\n]}", ":2:17: malformed JSON; correct it there\n"},
           {apply, "1e999", " holds a number that is too large for anything; correct it there\n"},
           {apply, R"({"sessions":[{"session":7,"target":5},{"session":8,"target":9,"vlans":"1,4095"}]})",
            ": sessions[1]: VLAN 4095: give a number from 1 to 4094\n"},
           {apply, "[]", ": give an object with the key \"sessions\", an array, and, "},
           {apply, R"({"sessions":[{"session":-1,"target":5}]})", ": sessions[0]: session -1: give a number from 0"},
           {apply, R"({"sessions":[{"session":7,"target":5},{"session":8,"target":9,"rate":1,"rate":2}]})",
            ": sessions[1]: rate: stands twice in one object"},
           {apply, R"({"groups":[{"group":2,"interfaces":["ge7",7]}],"sessions":[]})",
            ": groups[0]: interface ge7: stands in a group already"},
           {apply, R"({"sessions":[{"session":7,"target":5},{"session":7,"target":"ge5"}]})",
            ": sessions[1]: is the same member as sessions[0]\n"},
           {apply, R"({"sessions":[{"session":7,"target":5,"owner":"cli"}]})",
            ": sessions[0]: owner cli is another than lspanctl; name it with --owner, or say --all-owners\n"},
           {apply, R"({"sessions":[{"session":7,"target":5,"acl":true}]})",
            ": sessions[0]: acl: give a text or a number\n"},
           {apply, R"({"sessions":[{"session":7,"target":5,"vlan":"5"}]})",
            ": sessions[0]: vlan: a session member has no such key; there are session source target direction acl "
            "owner "
            "vlans rate learning apply_type role module_type vlan_map\n"},
           {simulate, "[5]", ": [0]: give an object"},
           {simulate, R"([{"message":"nothing","record":{}}])", ": [0]: message nothing: give one of"},
           {simulate, R"([{"message":"data_intf_conf","db":8,"record":{}}])",
            ": [0]: message: p_policy.data_intf_conf is not stored in that database"},
           {simulate, R"([{"message":"data_intf_conf"}])", ": [0]: record: give one"},
           {simulate, R"([{"message":"data_intf_conf","record":{}}])", ": [0]: record: index: give it, it is the key"},
           {simulate, R"([{"message":"data_intf_conf","record":{"index":{"index":-1}}}])",
            ": [0]: record: index: index: give a number from 0 to 4294967295"},
           {simulate, R"([{"message":"data_intf_conf","record":{"index":{"ifx":1}}}])",
            ": [0]: record: index: ifx: no such field in p_intf.intfindex"},
           {simulate, R"([{"message":"mirror_lspan_info","record":{"index":{"t_user":"a\u0000b"}}}])",
            ": [0]: record: index: t_user: a text must not hold a NUL character"},
           {simulate, R"([{"message":"mirror_lspan_info","record":{"index":{},"vlan_map":[1,-1]}}])",
            ": [0]: record: vlan_map: words are 32-bit numbers"},
           {simulate, R"([{"change":"kill","message":"data_intf_conf","record":{}}])",
            ": [0]: change: give \"set\" or \"del\""}}) {
    file("bad.json", each.text);
    const ran answer = tool(each.command + std::string(" DIR/bad.json"));
    EXPECT_EQ(answer.status, 1) << each.text;
    EXPECT_TRUE(answer.says.starts_with(std::string("lspanctl: DIR/bad.json") + each.why)) << each.text << answer.says;
  }
  EXPECT_TRUE(box_.dump().empty());
}

TEST_F(ctl, records_that_cannot_be_used) {
  ASSERT_EQ(tool("session add 1 --source ge5 --target ge9").status, 0);
  client store(box_.socket());
  store.run({"SELECT", "4"});
  store.run({"HSET", "u_monitor.mirror_lspan_info", "k1", "\xff\xff", "k2", ""});
  file("none.json", R"({"sessions":[]})");
  for (const auto &[line, status] : std::vector<std::pair<const char *, int>>{{"session show", 1},
                                                                              {"session show 1", 0},
                                                                              {"session export", 1},
                                                                              {"records", 1},
                                                                              {"check", 1},
                                                                              {"session apply DIR/none.json", 1}}) {
    const ran answer = tool(line);
    EXPECT_EQ(answer.status, status) << line;
    for (const char *why : {"0x6b31 is left out: it does not decode", "0x6b32 is left out: it has no index"})
      EXPECT_NE(answer.says.find("lspanctl: CONF_DB u_monitor.mirror_lspan_info: the record with key " +
                                 std::string(why) + "; have its writer write it again, or delete it\n"),
                std::string::npos)
          << answer.says;
  }
  EXPECT_EQ(store.run({"HLEN", "u_monitor.mirror_lspan_info"}), "3");  // nothing was applied
}

TEST_F(ctl, a_server_that_refuses_writes) {
  std::string many = R"({"sessions":[)";
  for (int i = 0; i < 1200; ++i)
    many += (i == 0 ? "" : ",") + replaced(R"({"session":N,"source":5,"target":9})", "N", std::to_string(i));
  file("many.json", many + "]}");
  client store(box_.socket());
  store.run({"CONFIG", "SET", "maxmemory", "1"});
  const std::string why =
      "lspanctl: the store at DIR/redis.sock refuses the write to 4:u_monitor.mirror_lspan_info: OOM command not "
      "allowed when used memory > "
      "'maxmemory'; give the server more memory, or empty it of what is not needed";
  expect({{"session add 3 --source 5 --target 9", 1, why + "\n"},
          {"session apply DIR/many.json", 1,
           why + " (0 of 1200 changes are known to be made; run it again for the rest)\n"}});
  EXPECT_TRUE(box_.dump().empty());
  store.run({"CONFIG", "SET", "maxmemory", "0"});
  const ran applied = tool("session apply DIR/many.json");
  EXPECT_EQ(applied.status, 0);
  EXPECT_EQ(harness::count_of(applied.says, "add     session "), 1200U);
  EXPECT_TRUE(applied.says.ends_with("\n1200 added, 0 changed, 0 deleted, 0 unchanged\n")) << applied.says;
}

// Whatever stands in the way is said in words that name the next step.
TEST_F(ctl, a_store_that_cannot_be_used) {
  client admin(box_.socket());
  for (const auto &[command, why] : std::vector<std::pair<texts, const char *>>{
           {{"ACL", "SETUSER", "lspanctl", "on", ">secret", "~*", "&*", "+@all", "-hgetall"},
            "refuses HGETALL u_monitor.mirror_lspan_info to user lspanctl: NOPERM this user has no permissions to run "
            "the 'hgetall' command; log in as a user who may, or have it allowed by ACL SETUSER at the server\n"},
           {{"ACL", "SETUSER", "lspanctl", "+hgetall", "<secret", ">other"},
            "refuses AUTH to user lspanctl: WRONGPASS invalid username-password pair or user is disabled; correct "
            "user "
            "and password in the platform file that the tool reads (lspanctl --help)\n"},
           {{"ACL", "SETUSER", "lspanctl", ">secret"}, ""},
           {{"SET", "u_monitor.mirror_lspan_info", "x"},
            "refuses HGETALL u_monitor.mirror_lspan_info to user lspanctl: WRONGTYPE Operation against a key holding "
            "the "
            "wrong kind of value; something else has that name there; look at it with redis-cli and take it away\n"}}) {
    admin.run({"SELECT", "4"});
    admin.run(command);
    platform_file_ = box_.folder() + "/own.json";
    write_file(platform_file_,
               R"({"store":{"socket":")" + box_.socket() + R"(","user":"lspanctl","password":"secret"}})");
    const ran answer = tool("session export");
    EXPECT_EQ(answer.status, *why == '\0' ? 0 : 1);
    EXPECT_TRUE(answer.says.ends_with(why)) << answer.says;
  }
  admin.run({"ACL", "SETUSER", "default", ">needed"});
  write_file(platform_file_, R"({"store":{"socket":")" + box_.socket() + R"("}})");
  EXPECT_EQ(tool("session export").says,
            "lspanctl: the store at DIR/redis.sock refuses SELECT 4: NOAUTH Authentication required; give a user and "
            "password in the platform file, best in the tool's own (lspanctl --help)\n");
  box_.server().signal(SIGSTOP);
  EXPECT_EQ(tool("session export --timeout 1").says,
            "lspanctl: the store at DIR/redis.sock gives no answer within 1 s; see that it is not stopped, or give it "
            "longer with --timeout\n");
  box_.server().signal(SIGCONT);
  platform_file_ = "/nope";
  EXPECT_EQ(tool("session export").says,
            "lspanctl: --platform-file /nope: there is no such file; correct the name or leave it out\n");
}

// ---- members, groups, results ----

// What the daemon would not act on as it says. Each row comes to what the rows before have written.
TEST_F(ctl, objections_and_their_override) {
  for (const auto &[line, why] : std::vector<std::pair<std::string, std::string>>{
           {"session add 1 --source ge5 --target ge9 --direction tx", ""},
           {"session add 1 --source ge7 --target ge8",
            "session 1 has the target ge9 already and can have only one; give this member another session"},
           {"session add 1 --source ge5 --target ge9 --direction tx --owner cli",
            "owner lspanctl has the same member, and the daemon cannot tell them apart; give this one another session"},
           {"session add 2 --source ge9 --target ge8 --direction both", ""},
           {"session add 3 --source ge8 --target ge5 --direction rx", ""},
           {"session add 3 --source ge8 --target ge5 --direction tx",
            "session 1 brings the copies back to ge8, and they go round for ever; mirror only rx"},
           {"session add 4 --source ge5 --target ge5", "source and target are the same interface; give another target"},
           {"session add 4 --source ge5 --target none", "nothing gets the copies; give a target that exists"},
           {"session add 4 --source ge5 --target ge7 --direction 9", "direction 9 is not known; give rx, tx or both"},
           {"session add 4 --target ge7", "it mirrors nothing; give a source or VLANs"},
           {"session add 4 --target ge7 --apply-type POLICY",
            "it mirrors what an ACL matches, and there is none; give an ACL"},
           {"session add 4 --source ge5 --target ge7 --apply-type VLAN",
            "it mirrors VLANs, and there are none; give VLANs"},
           {"group join 2 ge7 ge8", ""},
           {"session add 4 --source ge7 --target group:2",
            "the source ge7 is in the target group:2; take it out with lspanctl group leave ge7"},
           {"session add 4 --source ge5 --target group:2 --direction rx", ""},
           {"group join 2 ge5", "the source ge5 is in the target group:2; take it out with lspanctl group leave ge5"},
           {"session set 4 --vlans 7 --apply-type PORT", ""},
           {"session set 2 --apply-type POLICY", "it mirrors what an ACL matches, and there is none; give an ACL"}}) {
    const texts before = box_.dump();
    const ran answer = tool(line);
    EXPECT_EQ(answer.status, why.empty() ? 0 : 1) << line << answer.says;
    if (why.empty()) continue;
    EXPECT_TRUE(answer.says.ends_with(": " + why + ", or --force it\n")) << answer.says;
    EXPECT_EQ(box_.dump(), before);
    EXPECT_EQ(tool(line + " --force").status, 0) << line;
    box_.restore(before);
  }
  file("both.json",
       R"({"sessions":[{"session":1,"source":5,"target":9},{"session":1,"source":5,"target":8,"rate":1}]})");
  EXPECT_EQ(tool("session apply DIR/both.json").says,
            "lspanctl: session 1, ge5 -> ge8, both: session 1 has the target ge9 already and can have only one; give "
            "this member another session\n"
            "lspanctl: session 1, ge5 -> ge9, both: session 1 has the target ge8 already and can have only one; give "
            "this member another session\n"
            "lspanctl: nothing was changed, as the daemon would not act on 2 member(s) as they say; correct them, or "
            "--force them\n");
  EXPECT_EQ(tool("session apply DIR/both.json --force").status, 0);
}

TEST_F(ctl, several_members_at_once) {
  expect({
      {"session add 3 --source ge5,ge7 --source 8 --target ge9", 0,
       "added session 3, ge5 -> ge9, both\nadded session 3, ge7 -> ge9, both\nadded session 3, ge8 -> ge9, both\n"},
      {"session add 3 --source ge5,nope --target ge9 --rate 5", 1,
       "lspanctl: interface nope is unknown; give a number or a name of the platform file's ports\n"},
      {"session add 3 --source ge5 --target ge9 --rate 5 --may-exist", 0,
       "session 3, ge5 -> ge9, both is there already\n"},
      {"session set 3 --source ge5 --rate 64 --learning keep", 0,
       "changed session 3, ge5 -> ge9, both: mtp_switch: 0 -> 1, sample_rate: 0 -> 64\n"},
      {"session set 3 --source 5 --vlans 7", 0,
       "changed session 3, ge5 -> ge9, both: apply_type: PORT -> VLAN, vlan_map: - -> 7\n"},
      {"session set 3 --rate 64", 0,
       "session 3, ge5 -> ge9, both is so already\nchanged session 3, ge7 -> ge9, both: sample_rate: 0 -> 64\n"
       "changed session 3, ge8 -> ge9, both: sample_rate: 0 -> 64\n"},
      {"session add 3 --source ge5 --target ge9 --owner cli --force", 0, "added session 3, ge5 -> ge9, both\n"},
      {"session del 3 --source ge7", 0, "deleted session 3, ge7 -> ge9, both\n"},
      {"session del 3", 0, "deleted session 3, ge5 -> ge9, both\ndeleted session 3, ge8 -> ge9, both\n"},
      {"session del 3", 1, "lspanctl: there is no member session 3 of owner lspanctl; --owner cli has one\n"},
  });
}

TEST_F(ctl, members_and_groups) {
  expect({
      {"session show", 0, "no session members\n"},
      {"group show", 0, "no groups\n"},
      {"records", 0, "no records\n"},
      {"session add 3 --source ge5 --target 9 --direction rx", 0, "added session 3, ge5 -> ge9, rx\n"},
      {"session add 3 --source 5 --target ge9 --direction 1 --rate 64 --json", 0,
       R"({"done":"replaced","member":{"session":3,"source":"ge5","target":"ge9","direction":"rx","acl":0,)"
       R"("owner":"lspanctl","vlans":"","rate":64,"learning":"off","apply_type":"PORT","role":"LOCALSPAN_DST",)"
       R"("module_type":"USER"}})"
       "\n"},
      {"session add 4 --target group:2 --vlans 10,20-29 --learning keep --owner cli", 0,
       "added session 4, none -> group:2, both\n"},
      {"session add 5 --source 7 --target 8 --acl 7 --direction 9 --role erspan_src --force", 0,
       "added session 5, ge7 -> ge8, 9, acl 7\n"},
      {"group join 2 ge7 8", 0, "ge7 joined group 2\n8 joined group 2\n"},
      {"group join 3 ge8", 0, "ge8 moved from group 2 to group 3\n"},
      {"group join 3 ge8", 0, "ge8 is in group 3 already\n"},
      {"group show", 0,
       "GROUP  INTERFACES  TARGET OF SESSION\n"
       "2      ge7         4\n"
       "3      ge8         -\n"},
      {"group show 2 --json", 0,
       "[\n  {\n    \"group\": 2,\n    \"interfaces\": [\n      \"ge7\"\n    ],\n    \"sessions\": [\n      4\n    ]\n "
       " "
       "}\n]\n"},
      {"records --db conf_db", 0,
       "CONF_DB (4) u_monitor.mirror_lspan_info: session members, as configured (3)\n"
       "  t_user    session_num  s_ifx  d_ifx    dir   acl_id  module_type  role           apply_type  mtp_switch  "
       "vlan_map  sample_rate\n"
       "  cli       4            0      group:2  both  0       GROUP        LOCALSPAN_DST  VLAN        1           "
       "10,20-29  0\n"
       "  lspanctl  3            5      9        rx    0       USER         LOCALSPAN_DST  PORT        0           "
       "-         64\n"
       "  lspanctl  5            7      8        9     7       USER         ERSPAN_SRC     POLICY      0           "
       "-         0\n\n"
       "CONF_DB (4) p_policy.data_intf_conf: outflow groups, the group of each interface (2)\n"
       "  index  group_id\n"
       "  7      2\n"
       "  8      3\n\n"},
      {"group leave ge8 ge7", 0, "ge8 left group 3\nge7 left group 2\n"},
      {"result 3 --source ge5 --target ge9 --direction rx --code 7", 0,
       "wrote result 7 of session 3, ge5 -> ge9, rx\n"},
      {"result 3 --source ge7 --target group:2 --direction rx", 0,
       "wrote result 0 of session 3, ge7 -> group:2, rx\n"
       "lspanctl: note: there is no such member; the daemon deletes results of unknown members\n"},
      {"records --db 8", 0,
       "UDP_DB (8) u_monitor.mirror_result_info: results, as the forwarding side wrote them (2)\n"
       "  t_user   session_num  s_ifx  d_ifx  dir  acl_id  result\n"
       "  du_span  3            5      9      rx   0       7\n"
       "  du_span  3            7      2      rx   0       0\n"
       "  (0 or empty: msg_type)\n\n"},
      {"result 3 --source ge5 --target ge9 --direction rx --delete", 0,
       "deleted the result of session 3, ge5 -> ge9, rx\n"},
      {"session del 4 --target group:2 --owner cli", 0, "deleted session 4, none -> group:2, both\n"},
      {"session show 4", 0, "session 4 has no members\n"},
  });
}

TEST_F(ctl, files_bring_the_store_to_what_they_say) {
  for (const char *line :
       {"session add 1 --source ge5 --target ge9 --rate 64", "session add 2 --target group:2 --vlans 7",
        "session add 9 --source 8 --target 9 --owner cli", "group join 2 ge7"})
    ASSERT_EQ(tool(line).status, 0);
  const texts before = box_.dump();
  const ran exported = tool("session export");
  const std::string group = R"({"group":2,"interfaces":["ge7"]})";
  const std::string one = R"({"session":1,"source":"ge5","target":"ge9","direction":"both","acl":0,"owner":"lspanctl",)"
                          R"("vlans":"","rate":64,"learning":"off","apply_type":"PORT","role":"LOCALSPAN_DST",)"
                          R"("module_type":"USER"})";
  EXPECT_EQ(exported.says.substr(0, exported.says.rfind("},") + 1),
            "{\n  \"groups\": [\n    " + group + "\n  ],\n  \"sessions\": [\n    " + one);
  file("same.json", exported.says);
  file("all.json", tool("session export --all-owners").says);
  file("next.json", R"({"groups":[{"group":3,"interfaces":["ge7",8]}],)"
                    R"("sessions":[{"session":1,"source":5,"target":9,"vlan_map":[2,0,0]},)"
                    R"({"session":3,"source":5,"target":"group:2","direction":"tx","learning":5,"role":9}]})");
  const std::string plan =
      "delete  session 2, none -> group:2, both\n"
      "move    ge7 from group 2 to group 3\n"
      "join    ge8 to group 3\n"
      "change  session 1, ge5 -> ge9, both: apply_type: PORT -> VLAN, vlan_map: - -> [2,0,0], sample_rate: 64 -> 0\n"
      "add     session 3, ge5 -> group:2, tx\n";
  const std::string sums =
      "1 added, 1 changed, 1 deleted, 0 unchanged; of groups 1 joined, 1 moved, 0 left (1 of other owners left "
      "alone)\n";
  expect({
      {"session apply DIR/same.json", 0, "0 added, 0 changed, 0 deleted, 2 unchanged (1 of other owners left alone)\n"},
      {"session apply DIR/all.json --all-owners", 0, "0 added, 0 changed, 0 deleted, 3 unchanged\n"},
      {"session apply DIR/next.json --dry-run", 3, plan + "would be: " + sums},
      {"session apply DIR/same.json --dry-run", 0,
       "would be: 0 added, 0 changed, 0 deleted, 2 unchanged (1 of other owners left alone)\n"},
  });
  EXPECT_EQ(box_.dump(), before);
  expect({{"session apply DIR/next.json", 0, plan + sums}});
  expect_whole_json();
  file("again.json", tool("session export").says);  // also what no list of VLANs and no name says
  expect({
      {"session apply DIR/again.json", 0,
       "0 added, 0 changed, 0 deleted, 2 unchanged (1 of other owners left alone)\n"},
  });
  const ran back = tool("session apply DIR/all.json --all-owners --json");
  EXPECT_TRUE(back.says.ends_with(R"({"dry_run":false,"added":1,"changed":1,"deleted":1,"unchanged":1,"joined":0,)"
                                  R"("moved":1,"left":1,"of_other_owners":0})"
                                  "\n"))
      << back.says;
  EXPECT_EQ(box_.dump(), before);
}

// Whatever members there are: a file of them brings back what was there, to the byte.
TEST_F(ctl, random_members_survive_a_file) {
  std::mt19937 random(11);
  const auto one_of = [&random](const texts &options) { return options[random() % options.size()]; };
  texts dumps;
  for (int round = 0; round < 20; ++round) {
    for (int i = 0; i < 15; ++i) {
      std::string line = "session add " + std::to_string(random() % 4) + " --target " + one_of({"9", "ge8", "group:2"});
      line += one_of({"", " --source ge5", " --source 7"}) + one_of({"", " --direction rx", " --direction 77"});
      line += one_of({"", " --acl 4294967295"}) + one_of({"", " --vlans 1,4094", " --vlans 31-33,64"});
      line += one_of({"", " --learning keep"}) + one_of({"", " --apply-type VLAN_FILTER", " --apply-type 9"});
      line += one_of({"", " --role 3", " --rate 4294967295"}) + one_of({"", " --owner a\"\\b\x01"});
      ASSERT_EQ(tool(line + " --force").status, 0) << line;
    }
    for (const char *port : {"ge5", "ge7"})
      ASSERT_EQ(tool("group join " + std::to_string(1 + random() % 3) + " " + port + " --force").status, 0);
    expect_whole_json();
    dumps.push_back(tool("records --json").says);
    file("round" + std::to_string(round) + ".json", tool("session export --all-owners").says);
  }
  for (int round = 0; round < 40; ++round) {
    const size_t which = random() % dumps.size();
    ASSERT_EQ(tool("session apply --force --all-owners DIR/round" + std::to_string(which) + ".json").status, 0);
    ASSERT_EQ(tool("records --json").says, dumps[which]);
  }
}

// ---- with the daemon ----

TEST_F(ctl, states_and_check) {
  box_.start_daemon();
  ASSERT_TRUE(box_.settle());
  client udp(box_.socket());
  udp.run({"SELECT", "8"});
  for (const auto &[line, expected] : std::vector<std::pair<const char *, const char *>>{
           {"session add 3 --source ge5 --target ge9 --direction rx", "written: no answer\n"},
           {"result 3 --source ge5 --target ge9 --direction rx", "accepted\n"},
           {"result 3 --source ge5 --target ge9 --direction rx --code 7", "refused: argument list too long\n"},
           {"session add 4 --source ge5 --target group:2",
            "refused: argument list too long\nwritten: no answer, target group empty\n"},
           {"group join 2 ge7", "refused: argument list too long\nwritten: no answer\n"},
           {"result 4 --source ge5 --target group:2", "refused: argument list too long\naccepted\n"}}) {
    EXPECT_EQ(tool(line).status, 0) << line;
    ASSERT_TRUE(box_.settle());
    EXPECT_EQ(states(), expected) << line;
  }
  // Other contents are not answered yet; another kind leaves nothing of the former one.
  for (const auto &[line, expected] : std::vector<std::pair<const char *, const char *>>{
           {"session set 3 --vlans 7", "written: no answer\naccepted\n"},
           {"session set 3 --vlans none", "written: no answer\naccepted\n"},
           {"result 3 --source ge5 --target ge9 --direction rx --code 16",
            "refused: device or resource busy (ge5)\naccepted\n"},
           {"session set 3 --rate 4", "written: no answer\naccepted\n"},
           {"session set 3 --rate 0", "written: no answer\naccepted\n"},
           {"result 3 --source ge5 --target ge9 --direction rx", "accepted\naccepted\n"}}) {
    EXPECT_EQ(tool(line).status, 0) << line;
    ASSERT_TRUE(box_.settle());
    EXPECT_EQ(states(), expected) << line;
    EXPECT_EQ(tool("check").status, 0) << line << tool("check").says;
  }
  expect({{"check", 0, "all is right: 15 right, 0 missing, 0 different, 0 left over\n"}});
  expect_whole_json();

  udp.run({"DEL", "u_monitor.span_dst_info"});
  EXPECT_EQ(states(), "configured: span_dst_info missing\nconfigured: span_dst_info missing\n");
  harness::producer other(box_.socket());
  UBridge__UdpPtLearnIndex port = U_BRIDGE__UDP_PT_LEARN_INDEX__INIT;
  UBridge__UdpPtLearn learning = U_BRIDGE__UDP_PT_LEARN__INIT;
  char owner[] = "ko_lspan";
  port.t_app_name = owner;
  learning.index = &port;
  for (const uint32_t ifx : {7, 9}) {
    port.t_ifx = ifx;
    other.set(harness::any(6, learning.base));
  }
  other.flush();
  const ran found = tool("check");
  EXPECT_EQ(found.status, 1);
  EXPECT_EQ(
      found.says,
      "different  FWD_DB   udp_pt_learn        t_app_name=ko_lspan t_ifx=7 learn=unfwd_notlearn (stored -> wanted: "
      "learn: - -> unfwd_notlearn)\n"
      "different  FWD_DB   udp_pt_learn        t_app_name=ko_lspan t_ifx=9 learn=unfwd_notlearn (stored -> wanted: "
      "learn: - -> unfwd_notlearn)\n"
      "missing    UDP_DB   span_dst_info       t_user=ko_lspan session_id=3 s_phyid=105 d_phyid=109 dir=rx acl_id=0 "
      "role=LOCALSPAN_DST\n"
      "missing    UDP_DB   span_dst_info       t_user=ko_lspan session_id=4 s_phyid=105 d_phyid=group:2 dir=both "
      "acl_id=0 module_type=GROUP role=LOCALSPAN_DST\n"
      "11 right, 2 missing, 2 different, 0 left over\n");

  const lspanctl::json as_json = lspanctl::json::parse(tool("check --json").says);
  EXPECT_EQ(lspanctl::dump(as_json).substr(0, 70),
            R"({"right":11,"missing":2,"different":2,"left_over":0,"findings":[{"find)");
  EXPECT_EQ(as_json["findings"][2]["finding"], "missing");
  const lspanctl::json shown = lspanctl::json::parse(tool("session show 3 --json").says);
  EXPECT_EQ(shown[0]["state"], "configured");
  EXPECT_EQ(shown[0]["reason"], "span_dst_info missing, udp_pt_learn different");
  EXPECT_TRUE(shown[0]["result"].is_null());

  // Deleted while no daemon runs: what it wrote is left over.
  box_.daemon().stop();
  EXPECT_EQ(tool("session del 3 --source ge5 --target ge9 --direction rx").status, 0);
  EXPECT_EQ(tool("session add 6 --source ge8 --target ge9").status, 0);
  EXPECT_EQ(states(),
            "configured: span_dst_info missing, udp_pt_learn different\nconfigured: "
            "span_dst_info missing, span_port_src_info missing, udp_pt_learn different, span_mtp_info missing\n");
  EXPECT_NE(tool("check").says.find("7 right, 4 missing, 2 different, 3 left over\n"), std::string::npos);
  box_.start_daemon();
  ASSERT_TRUE(box_.settle());
  expect({{"check", 0, "all is right: 13 right, 0 missing, 0 different, 0 left over\n"}});

  // A platform file that has lost a port; records in the store stay as they are.
  box_.platform_file(R"({"store":{"socket":")" + box_.socket() + R"("},"ports":{"ge5":{"ifx":5,"phyid":105}}})");
  EXPECT_EQ(states(), "accepted\nconfigured: no translation for interface 8\n");
}

// Answers requests in the forwarding side's place, and members when it is asked for its state.
class forwarding_side {
 public:
  explicit forwarding_side(const std::string &socket)
      : requests_(lspanctl::parse_store(socket), std::chrono::seconds(5)),
        replies_(lspanctl::parse_store(socket), std::chrono::seconds(5)),
        results_(socket) {
    requests_.subscribe("ko_lspan_fwd.request");
    thread_ = std::thread([this] { serve(); });
  }
  ~forwarding_side() {
    done_ = true;
    thread_.join();
  }

  std::atomic<int> code = -1;  // its answer to the member of session 5; negative: none

 private:
  void serve() {
    sigset_t mask;
    sigemptyset(&mask);
    for (uint64_t n = 1000; !done_;) {
      const auto request = requests_.next(std::chrono::steady_clock::now() + std::chrono::milliseconds(20), mask);
      if (!request) continue;
      const auto asked = lspanctl::json::parse(request->bytes);
      const bool counts = asked["request"] == "counters";
      if (!counts && code >= 0) results_.set(harness::result({5, 5, 9}, static_cast<uint32_t>(code)));
      results_.flush();
      n += 500;
      const std::string members = R"([{"session":5,"s_phyid":105,"d_phyid":109,"dir":1,"acl_id":0,"packets":)" +
                                  std::to_string(n) + R"(,"bytes":)" + std::to_string(n * 64) + "}]";
      replies_.publish(asked["reply"], counts ? R"({"members":)" + members + "}" : R"({"state":"serving"})");
    }
  }

  lspanctl::store_client requests_, replies_;
  harness::producer results_;
  std::atomic<bool> done_ = false;
  std::thread thread_;
};

TEST_F(ctl, operating_a_daemon) {
  daemon_.reset();
  expect({
      {"session add 5 --source ge5 --target ge9 --direction rx", 0,
       "added session 5, ge5 -> ge9, rx; no daemon answers\n"},
      {"session add 5 --source ge5 --target ge9 --direction rx --wait", 1,
       "replaced session 5, ge5 -> ge9, rx\n"
       "lspanctl: no daemon answers, so that there is nothing to wait for; what was written stays\n"},
      {"status", 1,
       "ko_lspan: not there: no program of this name waits for requests\n"
       "ko_lspan_fwd: not there: no program of this name waits for requests\n"},
      {"resync", 1, "lspanctl: no ko_lspan answers; start it, and see that it is on the same store\n"},
      {"session show --counters", 1,
       "lspanctl: no ko_lspan_fwd answers; start it, and see that it is on the same store\n"},
  });
  EXPECT_EQ(states(), "configured: no daemon answers\n");
  box_.start_daemon();
  ASSERT_TRUE(box_.settle());
  EXPECT_TRUE(tool("status").says.starts_with("ko_lspan: serving, pid ")) << tool("status").says;
  EXPECT_EQ(tool("status").status, 0);
  const std::string metrics = tool("status --prometheus").says;
  for (const char *line : {"ko_lspan_up{program=\"ko_lspan\"} 1\n", "ko_lspan_up{program=\"ko_lspan_fwd\"} 0\n",
                           "# TYPE ko_lspan_writes_total counter\nko_lspan_writes_total{program=\"ko_lspan\"} "})
    EXPECT_NE(metrics.find(line), std::string::npos) << metrics;
  expect({
      {"resync", 0, "resynced: 0 written, 0 deleted\n"},
      // Learning comes back at a target that another session still has, until the daemon is asked to start anew.
      {"session add 6 --source ge7 --target ge9 --wait", 0, "added session 6, ge7 -> ge9, both\nwaited: written\n"},
      {"session del 6", 0, "deleted session 6, ge7 -> ge9, both\n"},
  });
  EXPECT_TRUE(tool("check --repair")
                  .says.ends_with(
                      "repaired: 1 written, 0 deleted\nall is right: 5 right, 0 missing, 0 different, 0 left over\n"));
  expect({{"check --repair", 0, "all is right: 5 right, 0 missing, 0 different, 0 left over\n"},
          {"session add 6 --source ge7 --target ge9 --wait", 0, "added session 6, ge7 -> ge9, both\nwaited: written\n"},
          {"session del 6 --wait", 0, "deleted session 6, ge7 -> ge9, both\nwaited: written\n"},
          {"check", 0, "all is right: 5 right, 0 missing, 0 different, 0 left over\n"}});

  forwarding_side forwarding(box_.socket());
  expect({{"session set 5 --rate 2 --wait=1", 4,
           "changed session 5, ge5 -> ge9, rx: sample_rate: 0 -> 2\n"
           "waited: not yet\n  session 5, ge5 -> ge9, rx: written: no answer\n"}});
  forwarding.code = 16;
  expect({{"session set 5 --rate 3 --wait", 5,
           "changed session 5, ge5 -> ge9, rx: sample_rate: 2 -> 3\n"
           "waited: refused\n  session 5, ge5 -> ge9, rx: refused: device or resource busy (ge5)\n"}});
  forwarding.code = 0;
  expect({{"session set 5 --rate 4 --wait", 0,
           "changed session 5, ge5 -> ge9, rx: sample_rate: 3 -> 4\nwaited: accepted\n"}});
  const lspanctl::json counted = lspanctl::json::parse(tool("session show --counters --json").says)[0];
  EXPECT_EQ(counted["bytes"].get<uint64_t>(), 64 * counted["packets"].get<uint64_t>());
  const ran top = tool("top --count 1 --json");
  EXPECT_EQ(top.status, 0);
  EXPECT_NEAR(lspanctl::json::parse(top.says)["bytes_per_second"].get<double>(), 500 * 64, 64 * 100);
}

// ---- dry run ----

TEST_F(ctl, simulate_shows_everything_in_order) {
  file("events.json", R"([
    {"message":"data_intf_conf","record":{"index":{"index":"ge7"},"group_id":2}},
    {"change":"added","db":4,"message":"u_monitor.mirror_lspan_info","time":"12:00","record":
      {"index":{"session_num":4,"s_ifx":5,"d_ifx":"group:2","dir":"rx"},"module_type":"GROUP","role":1,"vlan_map":"3",
       "apply_type":"VLAN"}},
    {"message":"mirror_result_info","record":{"index":{"t_user":"du_span","session_num":9}}},
    {"change":"set","message":"span_dst_info","record":{"index":{}}},
    {"change":"del","message":"mirror_lspan_info","record":{"index":{"session_num":4,"s_ifx":5,"d_ifx":"group:2","dir":1}}},
    {"change":"set","message":"mirror_lspan_info","record":{"index":{"session_num":5,"s_ifx":6}}}
  ])");
  const std::string key = "t_user=ko_lspan session_id=4 s_phyid=105 d_phyid=group:2 dir=rx acl_id=0";
  const std::string index = "session_num=4 s_ifx=5 d_ifx=group:2 dir=rx acl_id=0";
  const std::string trace =
      "start\n\n"
      "event 1: set CONF_DB p_policy.data_intf_conf  index=7 group_id=2\n"
      "  status   0\n\n"
      "event 2: set CONF_DB u_monitor.mirror_lspan_info  t_user=- " +
      index +
      " module_type=GROUP role=LOCALSPAN_DST apply_type=VLAN vlan_map=3\n"
      "  set      UDP_DB   span_dst_info  " +
      key +
      " module_type=GROUP role=LOCALSPAN_DST apply_type=VLAN\n"
      "  set      UDP_DB   span_vlan_src_info  " +
      key +
      " module_type=GROUP role=LOCALSPAN_DST vlan_map=3\n"
      "  set      FWD_DB   udp_pt_learn  t_app_name=ko_lspan t_ifx=7 learn=unfwd_notlearn\n"
      "  publish  FWD_DB   udp_flushdyn  ifx=7 flag=4\n"
      "  set      UDP_DB   span_mtp_info  t_user=ko_lspan session_id=4 d_phyid=group:2 module_type=GROUP "
      "role=LOCALSPAN_DST\n"
      "  status   0\n\n"
      "event 3: set UDP_DB u_monitor.mirror_result_info  t_user=du_span session_num=9 s_ifx=0 d_ifx=0 dir=0 acl_id=0\n"
      "  del      UDP_DB   mirror_result_info  t_user=du_span session_num=9 s_ifx=0 d_ifx=0 dir=0 acl_id=0\n"
      "  status   0\n\n"
      "event 4: set UDP_DB u_monitor.span_dst_info  t_user=- session_id=0 s_phyid=0 d_phyid=0 dir=0 acl_id=0\n"
      "  no event: the daemon does not read this record\n\n"
      "event 5: del CONF_DB u_monitor.mirror_lspan_info  t_user=- " +
      index +
      "\n"
      "  del      UDP_DB   span_vlan_src_info  " +
      key +
      "\n"
      "  del      UDP_DB   mirror_result_info  t_user=du_span session_num=4 s_ifx=5 d_ifx=2 dir=rx acl_id=0\n"
      "  del      UDP_DB   span_dst_info  " +
      key +
      "\n"
      "  del      FWD_DB   udp_pt_learn  t_app_name=ko_lspan t_ifx=7\n"
      "  del      UDP_DB   span_mtp_info  t_user=ko_lspan session_id=4 d_phyid=group:2\n"
      "  status   0\n\n"
      "event 6: set CONF_DB u_monitor.mirror_lspan_info  t_user=- session_num=5 s_ifx=6 d_ifx=0 dir=0 acl_id=0\n"
      "  status   -7\n";
  box_.server().stop();  // no server is needed
  expect({{"simulate DIR/events.json --level 0", 0, trace}, {"simulate DIR/events.json --level 0", 0, trace}});
  const std::string loud = tool("simulate DIR/events.json").says;
  EXPECT_NE(
      loud.find("  log      error  ko_span_trans_mirror_ifx_to_phyid: libddm get sphyid failed. ret=-7, s_ifx=6\n"),
      std::string::npos);
  EXPECT_NE(loud.find("  log      debug  ko_lspan_del: ======ko lspan del end========\n  status   0\n"),
            std::string::npos);

  // For programs the same, a line each; what records and watch write can be played, too.
  std::istringstream lines(tool("simulate DIR/events.json --json --level 4").says);
  std::string order;
  for (std::string line; std::getline(lines, line);) {
    const std::string first = lspanctl::json::parse(line).begin().key();
    order += first == "status" ? first + line.substr(9) + ";" : first + " ";
  }
  EXPECT_EQ(order,
            "log log event status:0};event write write write write write status:0};event log write status:0};"
            "event note event write write write write write status:0};event log log log log status:-7};");
}

// ---- watch: a process of its own, as it waits for signals ----

TEST_F(ctl, watch_tells_what_a_change_changed) {
  ASSERT_EQ(tool("session add 1 --source ge5 --target ge9 --rate 4").status, 0);
  const std::string output = box_.folder() + "/watch";
  const auto watch = [&](harness::process &as, texts more) {
    texts arguments{LSPANCTL_PROGRAM, "watch", "--store", box_.socket()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    write_file(output, "");  // not what an earlier one said
    as.start(arguments, output);
    return eventually([&] { return read_file(output).find("watching") != std::string::npos; }, "the watch");
  };
  harness::process all;
  ASSERT_TRUE(watch(all, {}));
  for (const char *line :
       {"session add 1 --source ge5 --target ge9 --rate 64", "session add 1 --source ge5 --target ge9 --rate 64",
        "group join 2 ge7", "session del 1 --source ge5 --target ge9"})
    ASSERT_EQ(tool(line).status, 0);
  client other(box_.socket());
  other.run({"PUBLISH", "6:u_bridge.udp_flushdyn", std::string("!\0\0\0\0", 5) + "\x38\x09\x48\x04"});
  other.run({"PUBLISH", "6:u_bridge.udp_flushdyn", "?"});
  other.run({"PUBLISH", "6:something.else", "?"});
  harness::producer unseen(box_.socket());
  unseen.del(harness::result({3, 0, harness::group_target(2)}));
  unseen.flush();
  other.run({"PUBLISH", "8:u_monitor.span_mtp_info", std::string("-\0\0\0\1k", 6)});
  eventually([&] { return read_file(output).find("span_mtp_info") != std::string::npos; }, "the last change");
  all.signal(SIGINT);
  EXPECT_EQ(all.wait(), 0);
  std::istringstream lines(read_file(output));
  std::string shown;
  for (std::string line; std::getline(lines, line);)
    shown += (line.starts_with("lspanctl:") ? line : line.substr(std::min<size_t>(line.size(), 14))) + "\n";
  const std::string key = "t_user=lspanctl session_num=1 s_ifx=5 d_ifx=9 dir=both acl_id=0";
  EXPECT_EQ(shown,
            "lspanctl: watching; end it with Ctrl-C\n"
            "CONF_DB  changed  mirror_lspan_info   " +
                key +
                ": sample_rate: 4 -> 64\n"
                "CONF_DB  same     mirror_lspan_info   " +
                key +
                "\n"
                "CONF_DB  added    data_intf_conf      index=7 group_id=2\n"
                "CONF_DB  deleted  mirror_lspan_info   " +
                key +
                " role=LOCALSPAN_DST sample_rate=64\n"
                "FWD_DB   request  udp_flushdyn        ifx=9 flag=4\n"
                "FWD_DB   unreadable  udp_flushdyn        announcement 0x3f\n"
                "UDP_DB   absent   mirror_result_info  t_user=du_span session_num=3 s_ifx=0 d_ifx=group:2 dir=rx "
                "acl_id=0: deleted, and was not there\n"
                "UDP_DB   unreadable  span_mtp_info       key 0x6b of what is deleted\n");

  harness::process some;
  ASSERT_TRUE(watch(some, {"--json", "--message", "data_intf_conf", "--count", "1", "--for", "60"}));
  ASSERT_EQ(tool("session add 1 --source ge5 --target ge9").status, 0);
  ASSERT_EQ(tool("group join 3 ge7").status, 0);
  EXPECT_EQ(some.wait(), 0);
  EXPECT_NE(read_file(output).find(R"("db":4,"message":"p_policy.data_intf_conf","change":"changed","record":)"
                                   R"({"index":{"index":7},"group_id":3}})"),
            std::string::npos);

  // A condition that comes true, and one that does not.
  for (const auto &[condition, status] : {std::pair("changed sample_rate=5", 0), {"changed sample_rate=6", 4}}) {
    harness::process until;
    ASSERT_TRUE(watch(until, {"--until", condition, "--for", "1"}));
    for (const char *rate : {"4", "5"})
      ASSERT_EQ(tool(std::string("session add 1 --source ge5 --target ge9 --rate ") + rate).status, 0);
    EXPECT_EQ(until.wait(), status);
  }

  harness::process cut;
  ASSERT_TRUE(watch(cut, {}));
  box_.server().stop();
  EXPECT_EQ(cut.wait(), 1);
  EXPECT_NE(read_file(output).find("is gone: Server closed the connection; see that it runs and try again\n"),
            std::string::npos);
}

// ---- texts ----

TEST(ctl_text, vlan_lists) {
  for (const auto &[given, shown] : std::vector<std::pair<const char *, const char *>>{
           {"", ""}, {"31,32,33", "31-33"}, {"30,10-12,12,11", "10-12,30"}, {"5,6", "5,6"}, {"1-4094", "1-4094"}}) {
    const auto words = lspanctl::parse_vlans(given);
    EXPECT_EQ(lspanctl::vlans_text(words.data(), words.size()), shown);
  }
  EXPECT_EQ(lspanctl::parse_vlans("1,33"), (std::vector<uint32_t>{2, 2}));
}

// Also behind flags, and with what the store and the platform file hold.
TEST_F(ctl, completion_in_bash) {
  ASSERT_EQ(tool("session add 31 --source ge5 --target group:2").status, 0);
  ASSERT_EQ(tool("group join 4 ge7").status, 0);
  write_file(box_.folder() + "/completion", tool("completion bash").says);
  const std::string given = "lspanctl --platform-file=" + box_.folder() + "/etc/ko_platform/platform.json ";
  const std::string ask = "source " + box_.folder() +
                          "/completion; COMP_WORDS=(" LSPANCTL_PROGRAM
                          "); COMP_LINE=$1; COMP_POINT=${#1}; _lspanctl; echo \"${COMPREPLY[*]}\"";
  for (const auto &[line, offered] : std::vector<std::pair<const char *, const char *>>{
           {"se", "session"},
           {"--json group l", "leave"},
           {"session add 3 --so", "--source"},
           {"session add 3 --direction ", "both rx tx"},
           {"session add 3 --direction=r", "rx"},
           {"session add --direction rx 3 --target g", "ge5 ge7 ge8 ge9 group:2 group:4"},
           {"session add 3 --target group:", "2 4"},  // bash takes the colon for the end of a word
           {"session --json show ", "31"},
           {"group join 4 ge5 ge", "ge5 ge7 ge8 ge9"},
           {"records --message span_d", "span_dst_info"},
           {"session add 3 --rate ", ""}}) {
    harness::process bash;
    write_file(box_.folder() + "/offered", "");
    bash.start({"/bin/bash", "-c", ask, "bash", given + line}, box_.folder() + "/offered");
    EXPECT_EQ(bash.wait(), 0);
    EXPECT_EQ(read_file(box_.folder() + "/offered"), offered + std::string("\n")) << line;
  }
}

TEST_F(ctl, help_of_every_command_has_examples) {
  for (const char *line : {"", "session add", "session set", "session del", "session show", "session export",
                           "session apply", "group join", "group leave", "group show", "result", "records", "watch",
                           "status", "resync", "check", "top", "simulate", "completion"}) {
    const ran answer = tool(line + std::string(" --help"));
    EXPECT_EQ(answer.status, 0) << line;
    EXPECT_NE(answer.says.find("Examples:\n"), std::string::npos) << line;
  }
}

}  // namespace
