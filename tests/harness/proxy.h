// A wire between the daemon and the server that a test can see and touch. It runs in a thread of its own.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
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

  size_t transactions() const { return transactions_; }  // EXECs forwarded since forget
  std::vector<std::string> commands();                   // words of each command since forget, joined by blanks
  void forget();

  void deafen(bool on) { deaf_ = on; }  // announcements are lost
  void cut() { cut_ = true; }           // closes every connection once

 private:
  struct link {
    int daemon;
    int server;
    bool subscribes = false;
    std::string unparsed = {};
  };

  void run();
  void accept_one();
  bool from_daemon(link &over);
  bool from_server(link &over);
  bool forward(link &over, const std::vector<std::string> &words, std::string_view bytes);
  void finish_kill();
  void close(link &over);

  const std::string server_path_;
  int listener_ = -1;
  std::vector<std::unique_ptr<link>> links_;
  bool dropped_ = false;  // links_ was emptied while one of them was served
  std::mutex mutex_;      // of what follows
  std::vector<std::string> commands_;
  size_t until_kill_ = 0;
  std::function<void()> victim_dies_;
  std::atomic<size_t> transactions_{0};
  std::atomic<bool> killed_{false}, deaf_{false}, cut_{false}, ended_{false};
  std::thread thread_;
};

}  // namespace harness
