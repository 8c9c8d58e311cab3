// The engine that is a Redis server: one connection for the subscription, one for reads and writes.
//
// What is written in one turn of the loop goes out as one transaction, the SELECTs inside:
//
//   MULTI  [SELECT] HSET|HDEL PUBLISH  [SELECT] HSET|HDEL PUBLISH ...  EXEC
//
// The next one waits for its answer, so that it can be written again in its place: when the server drops a transaction
// as a whole, its writes go out once more, each by itself, and only those that are refused then are given up. Reads
// keep their place among the writes. When either connection breaks both are made anew, with growing pauses.
//
// Behind a fence, the server watches the fence's key for the writer: WATCH and GET go out at first and behind each
// EXEC, and the next transaction when they have been answered. Whoever takes over sets the key, and whatever
// transaction of this process is still on its way then is dropped by the server, however long it was on its way.
#pragma once

#include <chrono>
#include <memory>
#include <set>

#include "store/engine.h"
#include "store/master_watch.h"
#include "store/redis_link.h"
#include "store/request_queue.h"

namespace ko_store {

class redis_engine final : public engine, private redis_link_user {
 public:
  redis_engine(vx_global &global, ko_platform::store_address address);

  void serve(const std::string &program) override;
  void publish(std::string_view channel, std::string_view text) override;
  void put_behind(const fence &what) override { fence_ = what; }
  void start(engine_user &user, std::vector<hash_id> hashes, size_t n_inputs) override;
  void scan(size_t hash) override;
  void fetch(size_t input, std::string_view key) override;
  void write(const change &what) override;
  bool congested() const override { return congested_; }
  bool quiet() const override { return queue_.writes() == 0; }

 private:
  // The words that name a hash and its channel, as commands have them.
  struct hash_words {
    hash_id id;
    std::string name;
    std::string channel;
  };

  // connections
  void begin();
  void connect();
  void on_master(const ko_platform::store_address &master);
  void close();
  void broken(std::string_view why);
  void retry_later();
  void check_up();
  void subscribe();
  unsigned log_in();
  void append_name();
  void answered(redis_link &link, const redis_answer &answer) override;
  void lost(redis_link &link, const std::string &why) override;
  bool may_send(redis_link &link) override;
  void on_subscription(const redis_answer &answer);
  void on_subscription_error(std::string_view why);
  void on_message(const redis_answer &answer);
  void report_refusal(const char *what, std::string_view where, std::string_view why);
  void on_login(const redis_answer &answer);
  unsigned append_fence();
  void on_fence(const redis_answer &answer);
  void end_fenced_off();

  // requests
  void push(const request &added, std::string_view key, std::string_view record = {});
  void send_later();
  void send_due();
  void append_single(size_t i);
  void append_batch();
  uint32_t append_write(const change &what);
  uint32_t append_select(uint32_t db);
  const hash_words &words_of(const hash_id &id);

  // answers
  void on_request(const redis_answer &answer);
  void on_single(const redis_answer &answer);
  void on_page(const redis_answer &answer);
  void on_fetched(const redis_answer &answer);
  void on_published();
  void on_batch(const redis_answer &answer);
  void on_transaction(const redis_answer &answer);
  void on_dropped();
  void end_write(std::string_view error);
  void drop_oldest();

  void watch();
  void look();
  void poke();
  bool waits() const;

  event_base *base_;
  ko_platform::store_address address_;
  std::unique_ptr<master_watch> masters_;  // where sentinels know the address
  engine_user *user_ = nullptr;
  std::vector<hash_id> hashes_;
  std::vector<std::string> channels_;  // one for each hash
  std::vector<uint32_t> scans_;        // likewise: how many were begun
  std::vector<hash_words> words_;      // of every hash that was written
  size_t n_inputs_ = 0;
  std::string subscription_;  // channels of the inputs, for people
  std::string program_;       // name of the connections; empty: they have none, and there are no requests
  std::string request_channel_;

  std::unique_ptr<redis_link> reader_;  // the subscription
  std::unique_ptr<redis_link> writer_;
  bool connected_ = false;  // or being connected
  bool up_ = false;
  unsigned reader_logins_ = 0;  // answers that the reader expects before those of its subscription
  bool reader_named_ = false;   // the answer to its name came, or is not expected
  bool writer_named_ = false;   // likewise
  fence fence_;                 // no key: there is none
  unsigned fence_answers_ = 0;  // that the writer expects before those of its requests
  bool reader_poked_ = false;   // it owes an answer to a ping
  unsigned writer_logins_ = 0;  // answers that the writer expects before those of its requests
  size_t subscriptions_ = 0;    // confirmed

  request_queue queue_;          // of the writer
  size_t sent_ = 0;              // requests of these, from the oldest
  size_t batch_ = 0;             // of those that were sent, the writes at the end, which are written together
  uint32_t batch_commands_ = 0;  // between MULTI and EXEC; 0: the batch is no transaction
  size_t singles_ = 0;           // requests, from the oldest, that go out each by itself
  uint32_t answered_ = 0;        // commands of the oldest, or of the batch
  std::string error_;            // the first of these
  int64_t selected_db_ = 0;      // of the writer, when what was sent is carried out
  bool congested_ = false;
  std::string command_;

  int pause_ms_ = 0;
  std::chrono::steady_clock::time_point up_since_;
  std::set<std::string, std::less<>> reported_;  // of this outage
  ko_platform::event_ptr retry_;
  ko_platform::event_ptr send_;

  uint64_t answers_ = 0;  // that came
  uint64_t seen_ = 0;     // of these, when the watch last looked
  uint64_t poked_ = 0;    // of these, when an idle server was last thought of
  int late_ = 0;          // looks of the watch since something came that was awaited
  bool silent_ = false;   // the server does not answer, and that was reported
  bool watching_ = false;
  ko_platform::event_ptr watch_;
  ko_platform::event_ptr poke_;
  std::set<std::string, std::less<>> refused_;  // what the server does not let this process do, and that was reported
};

}  // namespace ko_store
