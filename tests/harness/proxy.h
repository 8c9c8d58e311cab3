// A wire between the daemon and the server, on which the daemon dies at a chosen write. It runs in a thread of its own.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace harness {

class proxy {
 public:
  // Listens on the Unix socket `listen` and connects to the Unix socket `server` for each that comes.
  proxy(const std::string &listen, std::string server);
  proxy(const proxy &) = delete;
  proxy &operator=(const proxy &) = delete;
  ~proxy();

  // Right after the `count`-th EXEC from now on has gone to the server, calls `victim_dies`, lets nothing more through
  // and waits for the server to have carried out what it got. 0: never.
  void kill_after(size_t count, std::function<void()> victim_dies);
  bool killed() const { return killed_; }
  size_t transactions() const { return transactions_; }  // EXECs forwarded since kill_after

 private:
  struct link {
    int daemon;
    int server;
    std::string unsent = {};
  };

  void run();
  void accept_one();
  bool from_daemon(link &over);
  void count_transaction();
  void finish_kill();

  const std::string server_path_;
  int listener_ = -1;
  std::vector<link> links_;
  bool dying_ = false;
  std::mutex mutex_;  // of what follows
  size_t until_kill_ = 0;
  std::function<void()> victim_dies_;
  std::atomic<size_t> transactions_{0};
  std::atomic<bool> killed_{false}, ended_{false};
  std::thread thread_;
};

}  // namespace harness
