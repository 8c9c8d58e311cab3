// The engine that is a Redis server: hiredis on the event loop, one connection for the subscription, one for reads and
// writes.
//
// Every change is a transaction (MULTI, HSET or HDEL, PUBLISH, EXEC). What one turn of the loop writes goes out
// together; answers are looked at as they come. When either connection breaks both are made anew, with growing pauses.
#pragma once

#include <deque>
#include <set>

#include "global_context.h"
#include "platform_config.h"
#include "store/engine.h"

struct redisAsyncContext;
struct redisReply;

namespace ko_store {

class redis_engine final : public engine {
 public:
  redis_engine(vx_global &global, ko_platform::store_address address);
  ~redis_engine() override;

  void start(engine_user &user, std::vector<hash_id> hashes, size_t n_inputs) override;
  void scan(size_t hash) override;
  void fetch(size_t input, std::string_view key) override;
  void write(const change &what) override;
  bool congested() const override;

 private:
  struct written {  // not answered yet
    hash_id hash;
    change_kind kind;
    std::string key;
    std::string record;
  };
  struct fetching {
    size_t input;
    std::string key;
  };

  redisAsyncContext *open(bool subscribes);
  void connect();
  void close();
  void broken(const std::string &why);
  void retry_later();
  void check_up();
  bool log_in(redisAsyncContext *connection, void (*then)(redisAsyncContext *, void *, void *));
  void subscribe();
  void on_message(const redisReply &reply);
  void send(std::initializer_list<std::string_view> words, void (*answer)(redisAsyncContext *, void *, void *));
  void select(uint32_t db);
  void ask_page(size_t hash, std::string_view cursor);
  void on_page(const redisReply *reply);
  void on_fetched(const redisReply *reply);
  void on_outcome(const redisReply *reply);
  written &add_written();
  void drop_written();
  written *oldest();

  template <void (redis_engine::*on_reply)(const redisReply *)>
  static void answer(redisAsyncContext *connection, void *reply, void *self);
  static void logged_in(redisAsyncContext *connection, void *answer, void *self);
  static void noticed(redisAsyncContext *connection, void *reply, void *self);
  static void subscribed(redisAsyncContext *connection, void *answer, void *self);
  static void pinged(redisAsyncContext *connection, void *answer, void *self);

  event_base *base_;
  ko_platform::store_address address_;
  engine_user *user_ = nullptr;
  std::vector<hash_id> hashes_;
  std::vector<std::string> channels_;  // one for each hash
  size_t n_inputs_ = 0;

  redisAsyncContext *reader_ = nullptr;  // subscription; owned, as hiredis allows
  redisAsyncContext *writer_ = nullptr;
  bool up_ = false;
  bool ready_ = false;        // the writer answered
  size_t subscriptions_ = 0;  // confirmed
  int64_t selected_db_ = 0;   // of the writer
  std::deque<size_t> scanning_;
  std::deque<fetching> fetching_;
  std::vector<written> ring_;  // of writes without an answer, a power of two long
  size_t ring_start_ = 0;
  size_t ring_used_ = 0;
  std::string error_;  // the first of the transaction that is being answered
  mutable bool was_congested_ = false;
  std::string command_;

  int pause_ms_ = 0;
  std::set<std::string> told_;  // what was said of this outage
  ko_platform::event_ptr retry_;
};

}  // namespace ko_store
