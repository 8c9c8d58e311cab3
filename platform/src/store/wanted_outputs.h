// What a process wants to stand in its outputs: a copy of every record that it wrote and did not delete, which is
// compared with the store, and the writes that no comparison brings about, until they can be sent.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "store/arena.h"
#include "store/change.h"
#include "store/pending_writes.h"
#include "store/pool.h"
#include "store/record_table.h"

namespace ko_store {

class wanted_outputs {
 public:
  using sender = std::function<void(const change &)>;

  struct declaration {
    hash_id hash;
    std::string owner;  // whose records these are; empty: nobody's in particular
  };

  // Writes that no comparison brings about.
  pending_writes pending;

  // The outputs, numbered from 0. What was wanted in those before is forgotten; what is pending is not.
  void declare(std::span<const declaration> outputs);
  // Whether own records that are left over in the outputs are deleted. False to begin with.
  void set_own_records(bool deletes_left_overs) { own_records_ = deletes_left_overs; }
  size_t n_compared() const { return own_records_ ? outputs_.size() : 0; }
  const hash_id &hash(size_t i) const { return outputs_[i]->hash; }

  // Notes what is wanted from now on. Returns is_compared.
  bool note(const change &wanted);
  // Whether the comparison of the outputs brings the change about; else it has to be pending until it is sent.
  bool is_compared(const change &wanted) const;

  // A comparison: records that are stored in output `i` are compared, in any order; those that are left over are
  // deleted through `send`. Then, from the beginning, what is missing or different is sent, and what is pending, until
  // `interrupted` says so. Returns whether that was all.
  void begin_comparison();
  void compare(size_t i, std::span<const change> records, const sender &send);
  void set_unreadable(size_t i) { outputs_[i]->readable = false; }
  void begin_repair();
  bool repair_some(const std::function<bool()> &interrupted, const sender &send);
  // Whether the comparison saw every output and found nothing to write.
  bool is_right() const;

 private:
  struct output {
    output(const declaration &made, std::pmr::memory_resource *memory)
        : hash(made.hash), owner(made.owner), wanted(memory) {}

    hash_id hash;
    std::string owner;
    record_table wanted;   // marked with the number of the comparison that found the record stored
    bool readable = true;  // in the last comparison
    size_t matched = 0;    // records that carry its mark; 0 when some were changed since
  };

  output *output_of(const change &what) const;
  bool is_compared(const output *of, change_kind kind) const;
  bool is_own(const output &of, std::string_view key);
  bool repair_output(const output &of, const std::function<bool()> &interrupted, const sender &send);

  pool pool_;
  bool own_records_ = false;
  std::vector<std::unique_ptr<output>> outputs_;
  arena arena_;

  uint32_t comparison_ = 0;  // number of the last one
  bool wrote_ = false;       // since it began
  size_t position_ = 0;      // of the repair: the output, and the next bucket of what is wanted in it
  size_t next_bucket_ = 0;
};

}  // namespace ko_store
