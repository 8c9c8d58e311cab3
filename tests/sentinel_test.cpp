// The store has three servers and three sentinels, and the daemon follows the master, whatever becomes of the one
// before.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <sstream>

#include "cli.h"
#include "sandbox.h"

namespace {

using namespace harness;

// Ports of this machine that nobody has at the moment.
std::vector<std::string> free_ports(size_t count) {
  std::vector<int> sockets;
  std::vector<std::string> ports;
  while (ports.size() < count) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(sockets.back(), reinterpret_cast<const sockaddr *>(&address), size) != 0 ||
        getsockname(sockets.back(), reinterpret_cast<sockaddr *>(&address), &size) != 0)
      throw std::runtime_error("no port");
    ports.push_back(std::to_string(ntohs(address.sin_port)));
  }
  for (const int each : sockets) close(each);
  return ports;
}

class sentinels : public ::testing::Test {
 protected:
  static constexpr size_t count = 3;

  sentinels() : ports_(free_ports(2 * count)) {
    for (size_t i = 0; i < count; ++i) start_server(i);
    eventually(
        [&] {
          return count_of(client(path(0)).run({"INFO", "replication"}), "state=online") == count - 1;
        },
        "the replicas");  // else the sentinels find them seconds later
    for (size_t i = 0; i < count; ++i) {
      const std::string file = box.folder() + "/sentinel" + std::to_string(i);
      write_file(file, "port " + ports_[count + i] + "\nbind 127.0.0.1\nunixsocket " + file + ".sock\ndir " +
                           box.folder() + "\nsentinel monitor switch 127.0.0.1 " + ports_[0] +
                           " 2\nsentinel down-after-milliseconds switch 1000\nsentinel failover-timeout switch 3000\n" +
                           "user watcher on >w -@all +sentinel|get-master-addr-by-name resetchannels (+subscribe "
                           "&+switch-master)\n");
      watchers_[i].start({"redis-server", file, "--sentinel"}, file + ".log");
    }
    eventually([&] { return all_know(count - 1, count - 1); }, "that the sentinels know each other and the replicas");
    follow();
    box.platform_file(settings("switch", "w"));
    box.start_daemon();
  }

  std::string settings(const std::string &master, const std::string &password) const {
    return R"({"store":{"sentinels":["127.0.0.1:)" + ports_[3] + R"(","127.0.0.1:)" + ports_[4] + R"(","127.0.0.1:)" +
           ports_[5] + R"("],"master":")" + master + R"(","sentinel_user":"watcher","sentinel_password":")" + password +
           R"("},"log":{"file":")" + box.folder() + R"(/log"}})";
  }

  // What the tool says; ports as they are counted here.
  std::string tool(const std::string &file, const std::string &line) const {
    std::ostringstream out;
    std::vector<std::string> arguments{"--platform-file", file, "--timeout", "1"};
    for (const std::string &word : split(line)) arguments.push_back(word);
    lspanctl::run(arguments, out, out, false);
    std::string text = out.str();
    for (size_t i = 0; i < ports_.size(); ++i)
      for (size_t at = 0; (at = text.find(ports_[i], at)) != std::string::npos;)
        text.replace(at, ports_[i].size(), "P" + std::to_string(i));
    return text;
  }

  void start_server(size_t i) {
    std::vector<std::string> words{"redis-server",
                                   "--port",
                                   ports_[i],
                                   "--bind",
                                   "127.0.0.1",
                                   "--unixsocket",
                                   path(i),
                                   "--save",
                                   "",
                                   "--dir",
                                   box.folder(),
                                   "--repl-diskless-sync-delay",
                                   "0"};
    const size_t lead = watchers_[0].pid() < 0 ? 0 : master();
    if (i != lead) words.insert(words.end(), {"--replicaof", "127.0.0.1", ports_[lead]});
    servers_[i].start(words, path(i) + ".log");
    eventually([&] { return client(path(i)).run({"PING"}) == "PONG"; }, path(i));
  }

  std::string path(size_t server) const { return box.folder() + "/server" + std::to_string(server); }
  std::string ask(size_t sentinel, const std::string &words) const {
    return client(box.folder() + "/sentinel" + std::to_string(sentinel) + ".sock").run(split(words));
  }

  bool all_know(size_t replicas, size_t others) const {
    for (size_t i = 0; i < count; ++i) {
      const std::string known = "\n" + ask(i, "SENTINEL master switch");
      if (known.find("\nnum-slaves\n" + std::to_string(replicas) + "\n") == std::string::npos ||
          known.find("\nnum-other-sentinels\n" + std::to_string(others) + "\n") == std::string::npos)
        return false;
    }
    return true;
  }

  // The number of the master, as sentinel `of` has it.
  size_t master(size_t of = 0) const {
    const std::string where = ask(of, "SENTINEL get-master-addr-by-name switch");
    for (size_t i = 0; i < count; ++i)
      if (where == "127.0.0.1\n" + ports_[i] + "\n") return i;
    return count;
  }

  // What the box calls its socket is the master's from now on.
  void follow() {
    std::filesystem::remove(box.socket());
    std::filesystem::create_symlink(path(master()), box.socket());
  }

  void feed(uint32_t from, uint32_t n) {
    producer others(box.socket());
    for (uint32_t i = from; i < from + n; ++i)
      others.set(session({.session = 1 + i, .s_ifx = 100 + i, .d_ifx = 1000 + i}));
    others.flush();
  }

  // Until the sentinels agree on another master than `old`, and it knows.
  void wait_for_switch(size_t old) {
    const auto switched = [&] { return master(0) != old && master(0) == master(1) && master(1) == master(2); };
    eventually(switched, "another master");
    eventually([&] { return client(path(master())).run({"ROLE"}).starts_with("master"); }, "its role");
    follow();
  }

  void expect_fresh() {
    const std::vector<std::string> expected = of_fresh_daemon(box.inputs());
    if (!eventually([&] { return box.dump() == expected; }, "the right databases"))
      ADD_FAILURE() << difference(box.dump(), expected) << box.log();
  }

  sandbox box;
  const std::vector<std::string> ports_;
  std::array<process, count> servers_, watchers_;
};

// Seeded switches with changes in flight; SENTINEL_SWITCHES of them.
TEST_F(sentinels, the_daemon_follows_the_master) {
  const char *asked = std::getenv("SENTINEL_SWITCHES");
  const uint32_t switches = asked == nullptr ? 3 : static_cast<uint32_t>(std::atoi(asked));
  std::minstd_rand random(1);
  std::chrono::milliseconds latest{0};
  ASSERT_TRUE(box.settle());
  for (uint32_t round = 0; round < switches && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    const size_t old = master();
    feed(random() % 1000, 200);
    switch (round % 3) {
      case 0:
        eventually([&] { return ask(0, "SENTINEL failover switch") == "OK"; }, "a replica that can take over");
        break;
      case 1:
        servers_[old].signal(SIGSTOP);
        break;
      default:
        servers_[old].stop();
    }
    wait_for_switch(old);
    const auto known = std::chrono::steady_clock::now();
    feed(random() % 1000, 200);
    ASSERT_TRUE(box.settle());
    latest = std::max(latest,
                      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - known));
    servers_[old].signal(SIGCONT);
    if (!servers_[old].running()) start_server(old);
    feed(random() % 1000, 50);
    ASSERT_TRUE(box.settle());
    expect_fresh();
  }
  std::cout << switches << " switches, 200 changes done at most " << latest.count() << " ms behind the sentinels\n";
}

// Without sentinels the daemon stays where it is; it finds the master again as soon as one of them is back.
TEST_F(sentinels, all_gone) {
  ASSERT_TRUE(box.settle());
  for (process &each : watchers_) each.signal(SIGSTOP);
  feed(0, 20);
  ASSERT_TRUE(box.settle());
  client(box.socket()).run({"CLIENT", "KILL", "TYPE", "pubsub"});
  feed(20, 20);
  eventually([&] { return count_of(box.log(), "does not tell where the master") >= count; }, "that none tells");
  watchers_[2].signal(SIGCONT);
  ASSERT_TRUE(box.settle());
  expect_fresh();
  for (process &each : watchers_) each.signal(SIGCONT);
}

// Whatever the sentinels say, the tool's answer comes within its time, and tells what to do.
TEST_F(sentinels, the_tool_asks_them) {
  const std::string right = box.folder() + "/right", wrong = box.folder() + "/wrong", other = box.folder() + "/other";
  write_file(right, settings("switch", "w"));
  write_file(wrong, settings("switch", "wrong"));
  write_file(other, settings("other", "w"));
  const auto all_say = [](const std::string &why) {
    return ": 127.0.0.1:P3 (" + why + "), 127.0.0.1:P4 (" + why + "), 127.0.0.1:P5 (" + why + "); ";
  };
  ASSERT_TRUE(box.settle());
  watchers_[0].signal(SIGSTOP);
  EXPECT_EQ(tool(right, "session add 1 --source 1 --target 2"), "added session 1, 1 -> 2, both\n");
  EXPECT_TRUE(box.settle());
  expect_fresh();
  watchers_[0].signal(SIGCONT);
  EXPECT_EQ(tool(other, "check"), "lspanctl: no sentinel tells where the master \"other\" is" +
                                      all_say("it knows no such master") + "correct \"master\" in the platform file\n");
  EXPECT_EQ(tool(wrong, "check"),
            "lspanctl: no sentinel tells where the master \"switch\" is" +
                all_say("WRONGPASS invalid username-password pair or user is disabled.") +
                "correct \"sentinel_user\" and \"sentinel_password\" in the platform file, or what "
                "the user may\n");
  servers_[0].stop();
  EXPECT_EQ(tool(right, "check"),
            "lspanctl: cannot reach the store at 127.0.0.1:P0: Connection refused; the sentinels "
            "name it: try again when they have replaced it\n");
  wait_for_switch(0);
  EXPECT_TRUE(box.settle());
  EXPECT_EQ(tool(right, "check"), "all is right: 5 right, 0 missing, 0 different, 0 left over\n");
  watchers_[0].stop();
  for (process &each : watchers_) each.signal(SIGSTOP);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(tool(right, "check"),
            "lspanctl: no sentinel tells where the master \"switch\" is: 127.0.0.1:P3 (Connection "
            "refused), 127.0.0.1:P4 (no answer), 127.0.0.1:P5 (no answer); start a sentinel, "
            "correct \"sentinels\" in the platform file, or name the server with --store\n");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
}

}  // namespace
