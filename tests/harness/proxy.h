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
  // Listens on the Unix socket `listen` and connects to the Unix socket `server`, or to that port of this machine, for
  // each that comes.
  proxy(const std::string &listen, std::string server);
  proxy(const proxy &) = delete;
  proxy &operator=(const proxy &) = delete;
  ~proxy();

  // Of the transactions from now on, the first ends in the middle with a `count` of 1, and is whole with 2; so on with
  // the second. Then calls `victim_dies`, lets nothing more through and waits for the server to have carried out what
  // it got. 0: never.
  void kill_after(size_t count, std::function<void()> victim_dies);
  bool killed() const { return killed_; }
  // Closes every connection when `count` more bytes have gone to the server. 0: never.
  void cut_after(size_t count) { until_cut_ = count; }

  size_t transactions() const { return transactions_; }  // EXECs forwarded since forget
  size_t bytes() const { return bytes_; }                // that went to the server since forget
  std::vector<std::string> commands();                   // words of each command since forget, joined by blanks
  void forget();

  void pace(bool on) { paced_ = on; }   // announcements go through one by one, each when nothing else does
  void deafen(bool on) { deaf_ = on; }  // announcements are lost
  void cut() { cut_ = true; }           // closes every connection once
  void hold(bool on) { holds_ = on; }   // nothing goes through, either way; what was held does afterwards
  // From now on `what` is another text of its length on its way to the server.
  void replace(const std::string &what, const std::string &by);

 private:
  struct link {
    int daemon;
    int server;
    bool subscribes = false;
    std::string unparsed = {};
    std::string held = {};  // announcements
  };

  void run();
  void accept_one();
  bool from_daemon(link &over);
  bool from_server(link &over);
  void release_one();
  bool dies_now(const std::lock_guard<std::mutex> &);
  bool forward(link &over, const std::vector<std::string> &words, std::string_view bytes);
  void finish_kill();
  bool cuts_here(link &over, std::string_view bytes);
  void close(link &over);

  const std::string server_path_;
  int listener_ = -1;
  std::vector<std::unique_ptr<link>> links_;
  bool dropped_ = false;  // links_ was emptied while one of them was served
  std::mutex mutex_;      // of what follows
  std::vector<std::string> commands_;
  std::string replaced_, replacement_;
  size_t until_kill_ = 0;
  std::function<void()> victim_dies_;
  std::atomic<size_t> transactions_{0}, bytes_{0}, until_cut_{0};
  std::atomic<bool> killed_{false}, deaf_{false}, paced_{false}, cut_{false}, holds_{false}, ended_{false};
  std::thread thread_;
};

}  // namespace harness
