// The engine that is a Redis server: one connection for the subscription, one for reads and writes.
//
// Every change is a transaction (MULTI, HSET or HDEL, PUBLISH, EXEC). What one turn of the loop writes goes out
// together; answers are looked at as they come. When either connection breaks both are made anew, with growing pauses.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <set>

#include "store/engine.h"
#include "store/redis_link.h"

namespace ko_store {

class redis_engine final : public engine, private redis_link_user {
 public:
  redis_engine(vx_global &global, ko_platform::store_address address);

  void serve(const std::string &program) override;
  void publish(std::string_view channel, std::string_view text) override;
  void start(engine_user &user, std::vector<hash_id> hashes, size_t n_inputs) override;
  void scan(size_t hash) override;
  void fetch(size_t input, std::string_view key) override;
  void write(const change &what) override;
  bool congested() const override;
  bool quiet() const override { return writes_ == 0; }

 private:
  enum class request { login, name, select, page, fetch, write, publish, ping };
  struct awaited {  // a request that is not answered yet; its key and record stand behind it in the queue
    request kind{};
    change_kind change{};  // of a write
    unsigned answers = 0;  // of its commands; the last one is the outcome
    size_t hash = 0;       // of a page or a fetch
    hash_id changed{};     // of a write
    size_t key_size = 0;
    size_t record_size = 0;
  };
  // The words that name a hash and its channel, as commands have them.
  struct hash_words {
    hash_id id;
    std::string name;
    std::string channel;
  };

  void connect();
  void close();
  void broken(std::string_view why);
  void retry_later();
  void check_up();
  void subscribe();
  unsigned log_in();
  void append_name();
  void tell_refusal(const char *what, std::string_view where, std::string_view why);
  void select(uint32_t db);
  void ask_page(size_t hash, std::string_view cursor);
  const hash_words &words_of(const hash_id &id);

  // redis_link_user
  void answered(redis_link &link, const redis_answer &answer) override;
  void lost(redis_link &link, const std::string &why) override;
  void on_answer(const redis_link &link, const redis_answer &answer);
  void on_subscription(const redis_answer &answer);
  void on_subscription_error(std::string_view why);
  void on_message(const redis_answer &answer);
  void on_request(const redis_answer &answer);
  void on_page(const redis_answer &answer);
  void on_fetched(const redis_answer &answer);
  void on_outcome(const redis_answer &answer);

  void ask(awaited what, std::string_view key = {}, std::string_view record = {});
  awaited oldest() const;
  std::string_view oldest_key() const { return {queue_.data() + queue_start_ + sizeof(awaited), oldest().key_size}; }
  change oldest_change() const;
  void drop_oldest();

  void watch();
  void look();
  void poke();

  event_base *base_;
  ko_platform::store_address address_;
  engine_user *user_ = nullptr;
  std::vector<hash_id> hashes_;
  std::vector<std::string> channels_;  // one for each hash
  std::vector<hash_words> words_;      // of every hash that was written
  size_t n_inputs_ = 0;
  std::string subscription_;  // channels of the inputs, for people
  std::string program_;       // name of the connections; empty: they have none, and there are no requests
  std::string request_channel_;

  std::unique_ptr<redis_link> reader_;  // the subscription
  std::unique_ptr<redis_link> writer_;
  bool up_ = false;
  bool ready_ = false;          // the writer answered
  unsigned reader_logins_ = 0;  // answers that the reader expects before those of its subscription
  bool reader_named_ = false;   // the answer to its name came, or is not expected
  bool reader_poked_ = false;   // it owes an answer to a ping
  size_t subscriptions_ = 0;    // confirmed
  int64_t selected_db_ = 0;     // of the writer
  std::string queue_;           // of the writer's requests
  size_t queue_start_ = 0;      // the oldest
  size_t queued_ = 0;           // requests
  size_t writes_ = 0;           // of these
  unsigned answered_ = 0;       // commands of the oldest that were answered
  std::string error_;           // the first of the request that is being answered
  mutable bool was_congested_ = false;
  std::string command_;

  int pause_ms_ = 0;
  std::chrono::steady_clock::time_point up_since_;
  std::set<std::string, std::less<>> told_;  // what was said of this outage
  ko_platform::event_ptr retry_;

  uint64_t answers_ = 0;  // that came
  uint64_t seen_ = 0;     // of these, when the watch last looked
  uint64_t poked_ = 0;    // of these, when an idle server was last thought of
  int late_ = 0;          // looks of the watch since something came that was awaited
  bool silent_ = false;   // the server does not answer, and that was said
  bool watching_ = false;
  ko_platform::event_ptr watch_;
  ko_platform::event_ptr poke_;
  std::set<std::string, std::less<>> refused_;  // what the server does not let this process do, and that was said
};

}  // namespace ko_store
