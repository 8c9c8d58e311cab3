// The copies of what a process reads, so that a delete event has its contents, and a break of the connection costs
// nothing but a comparison. Records that differ from their copies are handed to the source's handlers.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <memory_resource>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

#include "store/arena.h"
#include "store/change.h"
#include "store/counters.h"
#include "store/pool.h"
#include "store/read_buffer.h"
#include "store/record_table.h"
#include "vx_mom.h"

namespace ko_store {

using deadline = std::chrono::steady_clock::time_point;

struct event_handler {
  vx_mom_event_cb call = nullptr;
  void *context = nullptr;
};

// Called after every event with its kind (VX_MOM_EVENT_...) and the handler's status.
using event_observer = std::function<void(uint32_t kind, const ProtobufCMessage &message, int32_t status)>;

class input_copies {
 public:
  // Both are borrowed.
  input_copies(counters &counts, const event_observer &observer) : counters_(counts), observer_(observer) {}

  // The sources, numbered from 0; the copies of those before are gone.
  void declare(std::span<const hash_id> hashes);
  size_t size() const { return sources_.size(); }
  const hash_id &hash(size_t i) const { return sources_[i]->hash; }
  bool has_records(size_t i) const { return sources_[i]->has_records; }  // else its messages are only published
  std::optional<size_t> find(const hash_id &hash) const;
  void set_handler(size_t i, uint32_t kind, event_handler handler) { sources_[i]->on[kind] = handler; }

  // A read of everything begins, or is given up: the records of the one before are forgotten.
  void begin_read();
  void add_read(size_t i, std::span<const change> records);
  // Then, from the beginning and until `until`, the handlers are given what differs from the copies: source by source,
  // what has gone and then what has come, both in the order of their keys. Returns whether that was all.
  void begin_delivery();
  bool deliver_some(deadline until);

  // A change of source `i`. `is_stored`: it was read from the store; else it was announced, and the store may know
  // better. Returns false when it does: the record has to be read.
  bool apply(size_t i, const change &what, bool is_stored);
  void apply_published(size_t i, std::string_view message);

  // This process had the record deleted, and it may still be there, or be there again: the next read hands it over once
  // more, and the handlers decide anew.
  void doubt(size_t i, std::string_view key) { sources_[i]->doubtful.emplace(key); }

  // Logs and counts a record or announcement that cannot be used.
  void reject(size_t i, std::string_view key, const char *why);

 private:
  using keys = std::set<std::string, std::less<>>;

  struct source {
    source(const hash_id &id, std::pmr::memory_resource *memory);

    hash_id hash;
    bool has_records;
    event_handler on[3] = {};  // by VX_MOM_EVENT_...
    record_table copy;         // as the handlers know it; marked with the read that found the record
    read_buffer read;          // records that were read and differ from the copy, or are in doubt
    keys doubtful;             // since the read began
    keys decided_anew;         // in doubt before that
  };
  enum class step { begin, find_deletes, carry_out };

  bool find_deletes(source &of, deadline until);
  bool deliver_deletes(deadline until);
  bool deliver_sets(deadline until);
  bool set_record(size_t i, std::string_view key, std::string_view record, bool is_stored);
  void delete_record(size_t i, std::string_view key);
  void hand_over(source &of, uint32_t kind, const ProtobufCMessage &message);

  counters &counters_;
  const event_observer &observer_;
  pool pool_;
  std::vector<std::unique_ptr<source>> sources_;
  arena arena_;
  uint32_t read_ = 0;  // number of the last one

  // Where delivery is: the source, and its step.
  size_t position_ = 0;
  step step_ = step::begin;
  size_t next_bucket_ = 0;  // of the copy
  keys deletes_;            // of records that are gone

  std::unordered_set<size_t> rejected_;  // hash values of the names of rejected records
};

}  // namespace ko_store
