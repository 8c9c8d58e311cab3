// Two daemons on one store, of which one is active: whatever becomes of it, the other takes over in time, no moment has
// two that write, and the records end as those of a daemon that is alone.
//
// The server's own record of commands says who wrote when: the first daemon comes to its Unix socket, the second to its
// port. KO_LEASE_RUNS (2) and KO_LEASE_SEED (1) in the environment choose a longer run.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <thread>

#include "cli.h"
#include "proxy.h"
#include "sandbox.h"

namespace {

using namespace harness;
using namespace std::chrono_literals;

uint32_t from_environment(const char *name, uint32_t otherwise) {
  const char *text = std::getenv(name);
  return text == nullptr ? otherwise : static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
}

double now() { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }

class lease : public ::testing::Test {
 protected:
  static constexpr size_t nobody = 2;

  lease() {
    const std::string port = std::to_string(30'000 + getpid() % 2'000);  // below those that the kernel hands out
    boxes[0].start_server({"--port", port, "--bind", "127.0.0.1"});
    std::filesystem::create_symlink(boxes[0].socket(), boxes[1].socket());
    for (size_t i = 0; i < 2; ++i) {
      wires[i] = std::make_unique<proxy>(wire_path(i), i == 0 ? boxes[0].socket() : port);
      configure(i, 1);
    }
    server = std::make_unique<client>(boxes[0].socket());
    monitor = std::make_unique<client>(boxes[0].socket());
    monitor->run({"MONITOR"});
    for (sandbox &each : boxes) each.start_daemon();  // both at once
    eventually([this] { return active() != nobody; }, "an active one");
    check("both started at once");
  }

  std::string wire_path(size_t i) const { return boxes[i].folder() + "/wire.sock"; }

  void configure(size_t i, int seconds) {
    boxes[i].platform_file(R"({"store":{"socket":")" + wire_path(i) + R"("},"log":{"file":")" + boxes[i].folder() +
                           R"(/log"},"redundancy":{"lease_seconds":)" + std::to_string(seconds) + "}}");
  }

  // Who holds the lease.
  size_t active() {
    const std::vector<std::string> words = split(server->run({"GET", "ko_lspan.lease"}));
    for (size_t i = 0; i < 2; ++i)
      if (words.size() == 4 && words[1] == std::to_string(boxes[i].daemon().pid())) return i;
    return nobody;
  }

  // No two sessions have one target, so that what is configured says what is wanted.
  void change(uint32_t count) {
    producer others(boxes[0].socket());
    for (uint32_t i = 0; i < count; ++i) {
      const auto k = static_cast<uint32_t>(random() % 200);
      const member what{.session = 1 + k, .s_ifx = 1 + k, .d_ifx = 1000 + k, .mtp_switch = i % 2, .sample = i};
      random() % 3 == 0 ? others.del(session(what)) : others.set(session(what));
    }
    others.flush();
  }

  // What the server was asked since the last call.
  void judge() {
    const std::string end = "end " + std::to_string(++marks);
    server->run({"ECHO", end});
    for (std::string line; (line = monitor->next()).find(end) == std::string::npos;) {
      ASSERT_FALSE(line.empty());
      const size_t from = line.find(" unix:") == std::string::npos ? 1 : 0;
      const bool changes = line.find("\"HSET\"") != std::string::npos || line.find("\"HDEL\"") != std::string::npos ||
                           line.find("\"PUBLISH\"") != std::string::npos;
      if (line.find(R"("SET" "ko_lspan.active")") != std::string::npos) {
        writer = from;
        taken_at = std::strtod(line.c_str(), nullptr);
        ++takeovers;
      } else if (changes &&
                 (line.find("u_monitor.span_") != std::string::npos || line.find("u_bridge.") != std::string::npos)) {
        ++writes[from];
        if (from == writer) continue;
        ++moments;
        ADD_FAILURE() << "written beside the active one: " << line.substr(0, 120);
      }
    }
  }

  void check(const std::string &what) {
    SCOPED_TRACE(what);
    const size_t who = active();
    ASSERT_TRUE(who != nobody && boxes[who].settle());
    judge();
    EXPECT_EQ(difference(boxes[0].dump(), of_fresh_daemon(boxes[0].inputs())), "");
  }

  void start(size_t who) {
    eventually([&] { return !boxes[who].daemon().running(); }, "its end");
    boxes[who].start_daemon();
  }

  struct fault {
    const char *what;
    void (*begin)(lease &, size_t who);
    void (*end)(lease &, size_t who);  // when the other has taken over
    double most = 2;                   // seconds that it takes: the lease and one more
  };
  static const std::vector<fault> faults;

  // Seconds that the takeover took.
  double suffer(const fault &how) {
    SCOPED_TRACE(how.what);
    const size_t who = active(), other = 1 - who;
    if (who == nobody) return ADD_FAILURE() << "nobody is active", 0;
    change(300);
    const double began = now();
    how.begin(*this, who);
    change(300);
    eventually([&] { return active() == other; }, "the takeover");
    change(100);
    how.end(*this, who);
    change(100);
    check(how.what);
    EXPECT_EQ(active(), other);
    EXPECT_LE(taken_at - began, how.most);
    return taken_at - began;
  }

  std::array<sandbox, 2> boxes;
  std::array<std::unique_ptr<proxy>, 2> wires;
  std::unique_ptr<client> server, monitor;
  std::minstd_rand random{from_environment("KO_LEASE_SEED", 1)};
  size_t writer = nobody, takeovers = 0, moments = 0;
  size_t writes[2] = {};
  double taken_at = 0;
  int marks = 0;
};

const std::vector<lease::fault> lease::faults{
    {"told to stop", [](lease &all, size_t who) { all.boxes[who].daemon().signal(SIGTERM); },
     [](lease &all, size_t who) {
       EXPECT_EQ(all.boxes[who].daemon().wait(), 0);
       all.start(who);
     },
     1},
    {"killed", [](lease &all, size_t who) { all.boxes[who].daemon().signal(SIGKILL); },
     [](lease &all, size_t who) { all.start(who); }},
    {"cut off, and what it wrote arrives later", [](lease &all, size_t who) { all.wires[who]->hold(true); },
     [](lease &all, size_t who) { all.wires[who]->hold(false); }},
    {"stopped for longer than the lease", [](lease &all, size_t who) { all.boxes[who].daemon().signal(SIGSTOP); },
     [](lease &all, size_t who) { all.boxes[who].daemon().signal(SIGCONT); }},
};

TEST_F(lease, one_writes_whatever_becomes_of_it) {
  for (const fault &each : faults) std::cout << each.what << ": " << suffer(each) << " s\n";
  // The clock of the active one is slow, or the server's fast: its lease runs out twice as early as it believes.
  const size_t slow = active();
  for (size_t i = 0; i < 2; ++i) configure(i, 2);
  wires[slow]->replace("$4\r\n2000\r\n", "$4\r\n1000\r\n");
  for (sandbox &each : boxes) each.daemon().signal(SIGHUP);
  std::this_thread::sleep_for(500ms);
  ASSERT_EQ(active(), slow) << "the lease was not handed on";
  std::cout << "its clock is slow: " << suffer(faults.back()) << " s\n";
  EXPECT_GT(writes[0], 100U);
  EXPECT_GT(writes[1], 100U);
}

TEST_F(lease, one_writes_in_any_order_of_events) {
  const uint32_t runs = from_environment("KO_LEASE_RUNS", 2);
  double longest = 0;
  for (uint32_t i = 0; i < runs && !HasFailure(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 700));
    change(static_cast<uint32_t>(random() % 2000));
    if (random() % 3 == 0) boxes[random() % 2].daemon().signal(SIGHUP);
    longest = std::max(longest, suffer(faults[random() % faults.size()]));
  }
  std::cout << runs << " faults, " << takeovers << " takeovers, the longest after " << longest << " s; "
            << writes[0] + writes[1] << " writes, " << moments << " beside the active one\n";
}

TEST_F(lease, says_who_is_active) {
  write_file(boxes[0].folder() + "/tool.json", R"({"store":{"socket":")" + boxes[0].socket() + R"("}})");
  const auto tool = [this](std::vector<std::string> words) {
    words.insert(words.end(), {"--platform-file", boxes[0].folder() + "/tool.json"});
    std::ostringstream out, err;
    const int status = lspanctl::run(words, out, err, false);
    return std::to_string(status) + " " + out.str() + err.str();
  };
  const size_t who = active();
  eventually([&] { return count_of(boxes[1 - who].log(), "connected to the store") == 1; }, "one that stands by");
  for (const auto &[words, expected] : std::vector<std::pair<std::vector<std::string>, std::vector<const char *>>>{
           {{"status"},
            {"0 ko_lspan: serving, host ", "\n  active since 2", "\nko_lspan: standby, host ", ", is active"}},
           {{"status", "--json"}, {"0 ", R"("state":"standby")", R"("active":false)"}},
           {{"status", "--prometheus"}, {"0 ", "\nko_lspan_active_since_seconds{program=\"ko_lspan\",host=\""}},
           {{"resync"}, {"0 resynced: 0 written, 0 deleted"}}}) {
    const std::string said = tool(words);
    for (const char *text : expected) EXPECT_EQ(count_of(said, text), 1U) << text << " in " << said;
  }
  boxes[who].daemon().stop();
  EXPECT_TRUE(tool({"status"}).starts_with("6 ko_lspan: standby, "));
}

}  // namespace
