// A switch in a folder: a redis-server on a Unix socket and the real daemon in mount namespaces of its own, so that
// pid files, level files and the platform file are private. Everything that was started ends with its object.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "producer.h"

struct redisContext;

namespace harness {

// Fails the test and returns false when `condition` does not hold within a generous time.
bool eventually(const std::function<bool()> &condition, const std::string &what);

size_t count_of(const std::string &text, const std::string &part);
std::vector<std::string> split(const std::string &text);  // at blanks
// The lines of a dump that only one of the two has, for people; empty when they are the same.
std::string difference(std::vector<std::string> got, std::vector<std::string> expected);
std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);

// A child process.
class process {
 public:
  process() = default;
  process(const process &) = delete;
  process &operator=(const process &) = delete;
  ~process() { stop(); }

  // Runs `arguments` (the first names the program); `prepare` runs in the child before it. Standard output and error go
  // to the file `output` when it is not empty.
  void start(const std::vector<std::string> &arguments, const std::string &output = {},
             const std::function<void()> &prepare = {});
  void signal(int number) const;
  int wait();            // exit status; 256 + the signal's number for a killed process
  void stop();           // stop_signal, and waits; nothing when it does not run
  bool running() const;  // the process has not ended
  // That it makes in `span`: a loop that turns without waiting makes thousands, on however slow a machine.
  // 0 where processes cannot be traced, as under an emulator.
  size_t system_calls(std::chrono::milliseconds span) const;
  size_t descriptors() const;  // that it has open
  pid_t pid() const { return pid_; }

  int stop_signal = SIGKILL;

 private:
  pid_t pid_ = -1;
};

// A connection to a server, for commands of a test's own.
class client {
 public:
  explicit client(const std::string &socket);
  client(const client &) = delete;
  client &operator=(const client &) = delete;
  ~client();

  // Runs a command and gives its answer as text: elements of an array a line each, "(nil)", "(error) ...".
  std::string run(const std::vector<std::string> &words);
  // What is published next on a channel that was subscribed to; empty when nothing comes in time.
  std::string next(std::chrono::milliseconds within = std::chrono::seconds(20));

 private:
  redisContext *context_;
};

class sandbox {
 public:
  // Level 5 is written to the level files of the daemon's channels.
  sandbox();
  ~sandbox();

  const std::string &folder() const { return folder_; }
  std::string socket() const { return folder_ + "/redis.sock"; }
  std::string log() const { return read_file(folder_ + "/log"); }
  void platform_file(const std::string &json) const;  // replaces the default, which is use_socket(socket())
  void use_socket(const std::string &path, const std::string &more = {}) const;  // with members of "store" behind it

  void start_server(const std::vector<std::string> &options = {});
  void start_daemon() { start_daemon(daemon_); }  // returns when it was started, not when it is ready
  void start_daemon(process &as) const;
  void start(process &as, const std::vector<std::string> &arguments) const;  // any program, where the daemon is
  // Until the daemon has handled everything that was written before, and its writes are in the store: results of
  // members that nobody knows go the whole road, and the daemon deletes them. False when it ended meanwhile.
  bool settle();

  process &server() { return server_; }
  process &daemon() { return daemon_; }

  // All records of the databases 4, 6 and 8: "<db> <hash> <key> <record>", bytes in hexadecimal, sorted.
  std::vector<std::string> dump() const;
  // Those that the daemon reads.
  std::vector<std::string> inputs() const;
  // Empties the server and writes `lines` of a dump; nothing is announced.
  void restore(const std::vector<std::string> &lines) const;

 private:
  std::string folder_;
  uint32_t next_mark_ = 0xF0000000;
  process server_;
  process daemon_;
};

// What a daemon makes of these inputs, lines of a dump, that was never anything but started on them.
std::vector<std::string> of_fresh_daemon(const std::vector<std::string> &inputs);

}  // namespace harness
