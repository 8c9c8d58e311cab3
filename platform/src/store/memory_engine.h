// The engine that keeps everything in the process: for dry runs, benchmarks and tests. Nothing outlives it, and no
// other process sees it; those who use it play the other writers through put and read the results.
#pragma once

#include <functional>
#include <map>

#include "global_context.h"
#include "store/engine.h"

namespace ko_store {

class memory_engine final : public engine {
 public:
  explicit memory_engine(vx_global &global);

  // As another writer: stores or deletes a record and announces it; publishes a message.
  void put(const change &what);

  // Carries out the jobs that are due, at once; otherwise the event loop does. Returns whether anything was.
  bool pump();

  // All records of a hash, packed key to packed record.
  const std::map<std::string, std::string, std::less<>> &records(uint32_t db, std::string_view message);

  // Called for every change that the user writes, before it is carried out; true: refuse it.
  std::function<bool(const change &)> on_write;

  // engine
  void start(engine_user &user, std::vector<hash_id> hashes, size_t n_inputs) override;
  void scan(size_t hash) override;
  void fetch(size_t input, std::string_view key) override;
  void write(const change &what) override;
  bool congested() const override { return false; }

 private:
  enum class job_kind { up, scan, fetch, announce, refuse };
  struct job {
    job_kind kind;
    size_t hash;
    owned_change about;
  };
  using hash_name = std::pair<uint32_t, std::string>;
  using hash_records = std::map<std::string, std::string, std::less<>>;

  void carry_out(const change &what);
  void run(const job &next);
  void scan_now(size_t hash);
  job &add(job_kind kind, size_t hash);
  void add(job_kind kind, size_t hash, const change &about);

  std::map<hash_name, hash_records> hashes_;
  engine_user *user_ = nullptr;
  std::vector<hash_id> known_;
  std::vector<hash_records *> known_records_;
  size_t n_inputs_ = 0;
  std::vector<job> jobs_;  // the first n_jobs_; the rest keep their memory
  size_t n_jobs_ = 0;
  std::vector<job> running_;
  ko_platform::event_ptr wake_;
};

}  // namespace ko_store
