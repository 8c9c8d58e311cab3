// The store as a client of it sees it: one connection, one call at a time.
#pragma once

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <hiredis/hiredis.h>

#include "platform_config.h"
#include "store/change.h"

namespace lspanctl {

// The store cannot be reached, or refuses. what() is one line that names the next step.
class store_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct context_deleter {
  void operator()(redisContext *context) const { redisFree(context); }
};
struct reply_deleter {
  void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using context_ptr = std::unique_ptr<redisContext, context_deleter>;
using reply_ptr = std::unique_ptr<redisReply, reply_deleter>;

// Changes, in any databases, that are made together or not at all; never none.
using transaction = std::vector<ko_store::owned_change>;

class store_client {
 public:
  // Connects and logs in; a server that sentinels have named has to be a master. No answer within `patience` is an
  // error. Throws store_error, as does every call.
  store_client(const ko_platform::store_address &address, std::chrono::seconds patience);

  // Every record of the hash, as sets in no order.
  std::vector<ko_store::owned_change> read_all(const ko_store::hash_id &hash);
  // The packed record with that key, or nothing.
  std::optional<std::string> read(const ko_store::hash_id &hash, std::string_view key);

  // Makes and announces one change. Returns whether a record with that key was there before.
  bool write(const ko_store::owned_change &what);
  // Makes and announces many, in their order; `made` is called for each with its place. What was made stays when
  // another is refused; the error then says how many were.
  void write_all(std::span<const transaction> all, const std::function<void(size_t)> &made);

  // Publishes `text`; returns how many have received it.
  size_t publish(const std::string &channel, const std::string &text);
  // How many listen on a channel.
  size_t listeners(const std::string &channel);

  // From now on the connection only hands out announcements, of every channel that was subscribed to. What is
  // announced before the last one is may get lost.
  void subscribe(const std::string &channel);
  struct announced {
    std::string channel;
    std::string bytes;
  };
  // The next announcement; nothing at `deadline` or when a signal came. `unblocked` is the signal mask of the wait.
  std::optional<announced> next(std::optional<std::chrono::steady_clock::time_point> deadline,
                                const sigset_t &unblocked);

 private:
  void append(std::span<const std::string_view> words);
  reply_ptr take();
  reply_ptr call(std::initializer_list<std::string_view> words);
  void expect_master();
  void select(uint32_t db);
  size_t append_transaction(const transaction &all);
  std::vector<bool> take_transaction(const transaction &all, size_t replies);
  std::string who() const;
  [[noreturn]] void refuse(const std::string &what, const redisReply &error) const;
  [[noreturn]] void fail_connection() const;

  std::string where_;
  std::string user_;  // that is logged in
  std::chrono::seconds patience_;
  context_ptr context_;
  std::optional<uint32_t> selected_;
  bool transactions_ = false;  // the server is known to take MULTI
};

// The store that `text` names: a path of a Unix socket (with a slash in it, or after "unix:"), or host:port. Throws
// usage_error.
ko_platform::store_address parse_store(const std::string &text);

}  // namespace lspanctl
