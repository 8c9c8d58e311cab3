// The operator's tool: tables of command lines with their exit status and what they say, on a server of the test's own.
#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <sstream>
#include <thread>

#include "catalog.h"
#include "cli.h"
#include "errors.h"
#include "member.h"
#include "record_json.h"
#include "sandbox.h"
#include "store/record_text.h"
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
    std::vector<std::string> arguments;
    if (line.find("--platform-file") == std::string::npos)
      arguments.push_back("--platform-file=" + box_.folder() + "/etc/ko_platform/platform.json");
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
};

// ---- transcripts ----

// Each is a conversation with the tool: a line "$ WORDS", what it says, and "[STATUS]" where that is not 0. A line
// "$ WORDS > NAME" keeps what it says in DIR/NAME. "> NAME TEXT" writes that file, and "! WORDS" is a command for the
// server. DIR is the test's own folder, '' an empty word. REWRITE_TRANSCRIPTS=1 in the environment writes them anew.
class transcript : public ctl, public testing::WithParamInterface<std::string> {
 protected:
  std::string replay(const std::string &script) {
    client admin(box_.socket());
    std::istringstream lines(script);
    std::string out;
    for (std::string line; std::getline(lines, line);) {
      const std::string text = replaced(line.substr(std::min<size_t>(line.size(), 2)), "DIR", box_.folder());
      const size_t end = text.find(line[0] == '$' ? " > " : " ");
      if (line.empty() || std::string("$>!#").find(line[0]) == std::string::npos) continue;  // what it said before
      out += line + "\n";
      if (line[0] == '!') admin.run(harness::split(text));
      if (line[0] == '>') write_file(box_.folder() + "/" + text.substr(0, end), text.substr(end + 1));
      if (line[0] != '$') continue;
      const ran answer = tool(text.substr(0, end));
      if (end == std::string::npos)
        out += answer.says;
      else
        write_file(box_.folder() + "/" + text.substr(end + 3), answer.says);
      if (answer.status != 0) out += "[" + std::to_string(answer.status) + "]\n";
    }
    return out;
  }
};

TEST_P(transcript, says_what_it_said) {
  const std::string path = TRANSCRIPTS "/" + GetParam();
  const std::string said = replay(read_file(path));
  if (std::getenv("REWRITE_TRANSCRIPTS") != nullptr) write_file(path, said);
  EXPECT_EQ(said, read_file(path));
}

texts transcripts() {
  texts names;
  for (const auto &entry : std::filesystem::directory_iterator(TRANSCRIPTS)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

INSTANTIATE_TEST_SUITE_P(lspanctl, transcript, testing::ValuesIn(transcripts()), [](const auto &name) {
  return replaced(name.param.substr(0, name.param.find('.')), "-", "_");
});

// ---- bad input ----

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
      EXPECT_NE(
          answer.says.find("lspanctl: CONF_DB u_monitor.mirror_lspan_info: the record with key " + std::string(why) +
                           "; have its writer write it again, or delete it: lspanctl records --db 4 --message "
                           "mirror_lspan_info --delete " +
                           std::string(why, 6) + "\n"),
          std::string::npos)
          << answer.says;
  }
  EXPECT_EQ(store.run({"HLEN", "u_monitor.mirror_lspan_info"}), "3");  // nothing was applied
  const std::string sound = ko_store::hex_digits(harness::session({1, 5, 9, 3}, "lspanctl").key);
  expect(
      {{"records --message mirror_lspan_info --delete 0x6b31", 0,
        "deleted CONF_DB u_monitor.mirror_lspan_info 0x6b31\n"},
       {"records --delete 0x6b32", 0, "deleted CONF_DB u_monitor.mirror_lspan_info 0x6b32\n"},
       {"records --delete 0x6b32", 1,
        "lspanctl: no record has the key 0x6b32; lspanctl records names those that cannot be used\n"},
       {"records --delete 0x6b3", 2,
        "lspanctl: key 0x6b3: give it as it is told, 0x and two digits for each byte; see lspanctl records --help\n"}});
  EXPECT_EQ(tool("records --delete 0x" + sound).says,
            "lspanctl: the record with the key 0x" + sound +
                " can be used; take it away with session del, group leave or result --delete\n");
  EXPECT_EQ(tool("session show").status, 0);
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
  expect({{"session apply DIR/many.json", 1,
           why + " (0 of 1200 changes are known to be made; run it again for the rest)\n"}});
  EXPECT_TRUE(box_.dump().empty());
  store.run({"CONFIG", "SET", "maxmemory", "0"});
  const ran applied = tool("session apply DIR/many.json");
  EXPECT_EQ(applied.status, 0);
  EXPECT_EQ(harness::count_of(applied.says, "add     session "), 1200U);
  EXPECT_TRUE(applied.says.ends_with("\n1200 added, 0 changed, 0 deleted, 0 unchanged\n")) << applied.says;
}

TEST_F(ctl, a_server_that_is_stopped) {
  box_.server().signal(SIGSTOP);
  EXPECT_EQ(tool("session export --timeout 1").says,
            "lspanctl: the store at DIR/redis.sock gives no answer within 1 s; see that it is not stopped, or give it "
            "longer with --timeout\n");
  box_.server().signal(SIGCONT);
}

// ---- members, groups, results ----

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
      "11 right, 2 missing, 2 different, 0 left over; check --repair has the daemon mend them\n");

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
  EXPECT_NE(tool("check").says.find("7 right, 4 missing, 2 different, 3 left over; "), std::string::npos);
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
       "ko_lspan: not there: nobody answers on this store; start it, or see in its log why\n"
       "ko_lspan_fwd: not there: nobody answers on this store; start it, or see in its log why\n"},
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
  const std::string lines = tool("top --count 2").says;
  EXPECT_EQ(harness::count_of(lines, "SESSION  SOURCE"), 2U) << lines;
  EXPECT_EQ(harness::count_of(lines, "\033"), 0U) << lines;
  harness::process terminal;
  terminal.start({"script", "-qec", LSPANCTL_PROGRAM " top --count 2 --store " + box_.socket(), "/dev/null"},
                 box_.folder() + "/screen");
  EXPECT_EQ(terminal.wait(), 0);
  EXPECT_EQ(harness::count_of(read_file(box_.folder() + "/screen"), "\033[H\033[J"), 2U);
}

// ---- dry run ----

TEST_F(ctl, simulate_needs_no_server_and_shows_the_log) {
  file("events.json", R"([{"message":"mirror_lspan_info","record":{"index":{"session_num":5,"s_ifx":6}}}])");
  box_.server().stop();
  const std::string loud = tool("simulate DIR/events.json").says;
  for (const char *line :
       {"  log      error  ko_span_trans_mirror_ifx_to_phyid: libddm get sphyid failed. ret=-7, s_ifx=6\n",
        "  log      debug  ko_lspan_add: ======ko lspan add start========\n", "  status   -7\n"})
    EXPECT_NE(loud.find(line), std::string::npos) << loud;
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
  for (const char *line :
       {"",           "session add", "session set", "session del", "session show", "session export", "session apply",
        "group join", "group leave", "group show",  "result",      "records",      "watch",          "status",
        "platform",   "resync",      "check",       "top",         "simulate",     "completion"}) {
    const ran answer = tool(line + std::string(" --help"));
    EXPECT_EQ(answer.status, 0) << line;
    EXPECT_NE(answer.says.find("Examples:\n"), std::string::npos) << line;
  }
}

}  // namespace
