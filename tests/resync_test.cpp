// A resync leaves what a fresh start would, whatever the handlers left behind; it takes everything anew that a start
// reads, and gives nothing away: the process, its lock, its descriptors; and when it cannot be done, nothing at all.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "sandbox.h"

namespace {

using namespace harness;
using namespace std::chrono_literals;
using lines = std::vector<std::string>;

class resync : public ::testing::Test {
 protected:
  resync() { box.start_server(); }

  void feed(const std::vector<std::pair<char, record>> &steps) {
    producer others(box.socket());
    for (const auto &[sign, what] : steps) sign == '+' ? others.set(what) : others.del(what);
    others.flush();
    ASSERT_TRUE(box.settle());
  }

  // The answer to the request of that name; empty when there is none in time.
  std::string ask(const std::string &request, std::chrono::milliseconds within = 20s) {
    const std::string reply = "ko_reply." + std::to_string(++asked_);
    client listener(box.socket());
    listener.run({"SUBSCRIBE", reply});
    client(box.socket())
        .run({"PUBLISH", "ko_lspan.request", R"({"request":")" + request + R"(","reply":")" + reply + "\"}"});
    return listener.next(within);
  }

  size_t reads() const { return count_of(box.log(), "lspan ds over."); }

  void hang_up() {
    const size_t before = reads();
    box.daemon().signal(SIGHUP);
    ASSERT_TRUE(eventually([&] { return reads() == before + 1; }, "the next read"));
    ASSERT_TRUE(box.settle());
  }

  sandbox box;

 private:
  uint32_t asked_ = 0;
};

struct left_over {
  const char *what;
  std::vector<std::pair<char, record>> steps;
};

const std::vector<left_over> cases{
    {"learning comes back at a target that another session has",
     {{'+', session({1, 1, 5})}, {'+', session({2, 2, 5})}, {'-', session({1, 1, 5})}}},
    {"a session of two targets",
     {{'+', session({1, 1, 5})}, {'+', session({1, 1, 6})}, {'-', session({1, 1, 5})}, {'-', session({1, 1, 6})}}},
    {"a member becomes one of another kind",
     {{'+', session({1, 1, 5})}, {'+', session({.session = 1, .s_ifx = 1, .d_ifx = 5, .apply = 2, .vlans = {6}})}}},
    {"a result outlives its member",
     {{'+', session({1, 1, 5})}, {'+', result({1, 1, 5}, 3)}, {'-', session({1, 1, 5})}, {'-', result({1, 1, 5})}}},
    {"one of two owners of a member takes its records away",
     {{'+', session({1, 1, 5})}, {'+', session({1, 1, 5}, "other")}, {'-', session({1, 1, 5})}}},
};

TEST_F(resync, leaves_what_a_fresh_start_would) {
  box.start_daemon();
  ASSERT_TRUE(box.settle());
  for (const left_over &now : cases) {
    SCOPED_TRACE(now.what);
    box.restore({});
    hang_up();
    feed(now.steps);
    const lines expected = of_fresh_daemon(box.inputs());
    EXPECT_NE(box.dump(), expected) << "nothing was left behind";
    hang_up();
    EXPECT_EQ(difference(box.dump(), expected), "");
  }
}

// Asks for the lock all the time, as a second instance would.
class rival {
 public:
  explicit rival(const std::string &pid_file)
      : file_(open(pid_file.c_str(), O_RDWR | O_CLOEXEC)), thread_([this] { run(); }) {}
  ~rival() {
    ended_ = true;
    thread_.join();
    close(file_);
  }

  std::atomic<size_t> asked{0}, free{0};

 private:
  void run() {
    for (; !ended_; ++asked) {
      struct flock lock {};
      lock.l_type = F_WRLCK;
      if (fcntl(file_, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) ++free;
    }
  }

  const int file_;
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

TEST_F(resync, gives_nothing_away) {
  constexpr uint32_t count = 200;
  box.start_daemon();
  ASSERT_TRUE(box.settle());
  hang_up();  // which closes what the daemon inherited
  const size_t descriptors = box.daemon().descriptors();
  {
    const rival second(box.folder() + "/run/ko_lspan.pid");
    client server(box.socket());
    producer others(box.socket());
    for (uint32_t i = 0; i < count; ++i) {
      for (uint32_t k = 0; k < 20; ++k) others.set(session({.session = 1 + k, .s_ifx = 1 + i, .d_ifx = 1000 + k}));
      if (i > 0) others.del(session({.session = 1 + i % 20, .s_ifx = i, .d_ifx = 1000 + i % 20}));
      others.flush();
      box.daemon().signal(SIGHUP);
      if (i % 3 == 0) continue;
      if (i % 3 == 1) std::this_thread::sleep_for(std::chrono::milliseconds(i % 7));
      box.daemon().signal(SIGHUP);
      if (i % 10 == 0) {
        ASSERT_TRUE(box.settle());
      }
    }
    ASSERT_TRUE(box.settle());
    EXPECT_EQ(second.free, 0U) << "of " << second.asked;
    EXPECT_GT(second.asked, 1000U);
  }
  hang_up();
  EXPECT_EQ(box.daemon().descriptors(), descriptors);
  EXPECT_EQ(read_file(box.folder() + "/run/ko_lspan.pid"), std::to_string(box.daemon().pid()) + '\0');
  EXPECT_EQ(difference(box.dump(), of_fresh_daemon(box.inputs())), "");
}

TEST_F(resync, takes_everything_anew) {
  const std::string settings = box.folder() + "/etc/ko_platform/platform.json", program = box.folder() + "/ko_lspan";
  const auto with_ports = [&](const std::string &ports) {
    box.use_socket(box.socket());
    const std::string text = read_file(settings);
    write_file(settings, text.substr(0, text.size() - 1) + R"(,"ports":{)" + ports + "}}");
  };
  std::filesystem::copy_file(KO_LSPAN_PROGRAM, program);
  with_ports(R"("a":{"ifx":1,"phyid":101})");
  box.start(box.daemon(), {program, "an argument"});
  ASSERT_TRUE(box.settle());
  feed({{'+', session({1, 1, 2})}});
  const lines unknown = box.dump();

  with_ports(R"("a":{"ifx":1,"phyid":101},"b":{"ifx":2,"phyid":})");
  box.daemon().signal(SIGHUP);
  eventually([&] { return count_of(box.log(), "no resync: /etc/ko_platform/platform.json:1:") == 1; }, "what is wrong");
  with_ports(R"("a":{"ifx":1,"phyid":101},"b":{"ifx":2,"phyid":102})");
  std::filesystem::rename(program, program + ".old");
  box.daemon().signal(SIGHUP);
  eventually([&] { return count_of(box.log(), "/ko_lspan: No such file or directory; all goes on"); }, "its name");
  write_file(program, "no program");
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  box.daemon().signal(SIGHUP);
  eventually([&] { return count_of(box.log(), "cannot be executed: Exec format error") == 1; }, "its name");
  feed({{'+', session({2, 1, 2})}, {'-', session({2, 1, 2})}});
  EXPECT_EQ(difference(box.dump(), unknown), "");

  std::filesystem::rename(program + ".old", program);
  std::filesystem::rename(box.folder() + "/log", box.folder() + "/log.1");
  hang_up();
  EXPECT_EQ(box.dump().size(), unknown.size() + 4);
  const std::string before = read_file(box.folder() + "/log.1");
  feed({{'-', session({1, 1, 2})}});
  EXPECT_EQ(read_file(box.folder() + "/log.1"), before);
  const std::string words = read_file("/proc/" + std::to_string(box.daemon().pid()) + "/cmdline");
  EXPECT_EQ(words, program + '\0' + "an argument" + '\0');
}

// Whatever was announced before it, also while the daemon read everything anew.
TEST_F(resync, an_answer_is_a_barrier) {
  box.start_daemon();
  ASSERT_TRUE(box.settle());
  client reader(box.socket());
  reader.run({"SELECT", "8"});
  for (uint32_t i = 1; i <= 30; ++i) {
    if (i % 2 == 0) box.daemon().signal(SIGHUP);
    producer others(box.socket());
    for (uint32_t k = 0; k < i * 20; ++k) others.set(session({.session = i, .s_ifx = 1 + k, .d_ifx = 7}));
    others.flush();
    std::string state;
    const auto serves = [&] {
      return (state = ask("status", 100ms)).find(R"("state":"serving")") != std::string::npos;
    };
    ASSERT_TRUE(eventually(serves, "an answer that it serves"));
    EXPECT_EQ(reader.run({"HLEN", "u_monitor.span_port_src_info"}), std::to_string(10 * i * (i + 1))) << state;
  }
}

TEST_F(resync, answers_when_it_is_done) {
  box.start_daemon();
  ASSERT_TRUE(box.settle());
  feed({{'+', session({1, 1, 5})}, {'+', session({2, 2, 5})}, {'-', session({1, 1, 5})}});
  EXPECT_EQ(ask("resync"), R"({"done":true,"written":1,"deleted":0})");
  EXPECT_EQ(difference(box.dump(), of_fresh_daemon(box.inputs())), "");
  EXPECT_EQ(ask("resync"), R"({"done":true,"written":0,"deleted":0})");
  box.platform_file("{,}");
  EXPECT_EQ(ask("resync"), R"({"error":"/etc/ko_platform/platform.json:1:2: malformed JSON"})");
  const std::string state = ask("status");
  for (const char *part :
       {R"({"program":"ko_lspan","pid":)", R"("connected":true,"connected_since":"2)", R"("reads":1,)",
        R"("last_error":"no resync: /etc/ko_platform/platform.json:1:2: malformed JSON; all goes)"})
    EXPECT_NE(state.find(part), std::string::npos) << state;
}

TEST_F(resync, garbage_is_no_request) {
  box.start_daemon();
  ASSERT_TRUE(box.settle());
  client server(box.socket());
  client listener(box.socket());
  listener.run({"SUBSCRIBE", "ko_reply.x"});
  listener.run({"SUBSCRIBE", "8:u_monitor.span_dst_info"});
  const lines before = box.dump();
  const std::string deep(3000, '[');
  for (const std::string &request :
       lines{"", "{", "[]", "7", "\"resync\"", std::string("\0\xff{", 3), deep, std::string(1 << 20, ' '), "{}",
             R"({"request":"status"})", R"({"request":"status","reply":7})",
             R"({"request":"status","reply":"foreign"})", R"({"request":"resync","reply":"8:u_monitor.span_dst_info"})",
             R"({"request":"resync","reply":"ko_reply.a b"})", R"({"request":"resync","reply":"ko_reply.\u0000"})",
             R"({"request":"resync","reply":"ko_reply.)" + std::string(300, 'x') + "\"}",
             R"({"request":["resync"],"reply":"ko_reply.x"})", R"({"request":"Status","reply":"ko_reply.x"})"})
    server.run({"PUBLISH", "ko_lspan.request", request});
  EXPECT_EQ(listener.next(), R"({"error":"unknown request \"\""})");
  EXPECT_EQ(listener.next(), R"({"error":"unknown request \"Status\""})");
  const std::string state = ask("status");
  EXPECT_NE(state.find(R"("rejected":16,)"), std::string::npos) << state;
  EXPECT_EQ(count_of(box.log(), "a request cannot be answered"), 1U);
  EXPECT_EQ(reads(), 1U);
  EXPECT_EQ(difference(box.dump(), before), "");
}

// The marker keeps the daemon from registering with a monitor, not from telling that it runs.
TEST_F(resync, the_service_manager_is_told) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  const std::string path = box.folder() + "/notify";
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  ASSERT_EQ(bind(manager, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
  std::string told;
  const auto hears = [&](const std::string &what, size_t times) {
    return eventually(
        [&] {
          char text[400];
          for (ssize_t n = 0; (n = recv(manager, text, sizeof(text), 0)) > 0;)
            told.append(text, static_cast<size_t>(n)).append("\n");
          return count_of(told, what) >= times;
        },
        what + " in " + told);
  };
  write_file(box.folder() + "/tmp/ko_lspan.ham", "");
  const lines start{"env", "NOTIFY_SOCKET=" + path, "WATCHDOG_USEC=100000", KO_LSPAN_PROGRAM};
  box.platform_file("{,}");
  box.start(box.daemon(), start);
  EXPECT_EQ(box.daemon().wait(), 0);
  EXPECT_EQ(recv(manager, nullptr, 0, 0), -1) << "a daemon that cannot work is not ready";
  box.use_socket(box.socket());
  box.start(box.daemon(), start);
  ASSERT_TRUE(hears("STATUS=serving; ", 1) && hears("WATCHDOG=1", 3));
  EXPECT_TRUE(told.starts_with("READY=1\n")) << told;
  told.clear();
  box.daemon().signal(SIGHUP);
  ASSERT_TRUE(hears("STATUS=serving; ", 1) && hears("WATCHDOG=1", 3));
  const size_t reloading = told.find("RELOADING=1\nMONOTONIC_USEC=");
  EXPECT_LT(reloading, told.find("READY=1\n")) << told;
  close(manager);
}

}  // namespace
