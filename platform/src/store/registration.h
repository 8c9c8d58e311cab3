// One process's registration with the store: what it reads and writes, and what it knows of both.
//
// It holds a copy of every input, so that a delete event has its contents and a break of the connection costs nothing
// but a comparison; and of every record that the process wants in its outputs, so that the outputs can be put right.
//
//   idle --declare--> starting --up--> reading --all read--> delivering --> comparing --> repairing --> live
//                        ^                                                                            |
//                        +---------------------------------- down ------------------------------------+
//
// reading: the stored inputs come in. delivering: the handlers are given what differs from the copies; what they write
// is only noted. comparing: the stored outputs come in; what differs from what is noted is written, what is not noted
// is deleted. repairing: what is noted and was not there is written. Changes that are announced meanwhile wait. live:
// changes are delivered and written as they come.
//
// Long work is done in slices, so that the loop stays free.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <memory_resource>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "global_context.h"
#include "store/arena.h"
#include "store/engine.h"
#include "store/layout.h"
#include "store/pool.h"
#include "store/record_table.h"
#include "vx_mom.h"

namespace ko_store {

struct counters {
  uint64_t events = 0;            // handed to handlers
  uint64_t handler_failures = 0;  // of these, answered with a status other than 0
  uint64_t rejected = 0;          // records and announcements that cannot be used
  uint64_t writes = 0;            // handed to the engine
  uint64_t deletes = 0;           // of these
  uint64_t published = 0;         // of the writes, those that are not stored
  uint64_t refused = 0;           // of these, refused by it
  uint64_t reads = 0;             // times that the inputs were read
};

using sorted_records = std::pmr::map<std::pmr::string, std::pmr::string, std::less<>>;

struct event_handler {
  vx_mom_event_cb call = nullptr;
  void *context = nullptr;
};

struct input_source {
  input_source(const hash_id &id, std::pmr::memory_resource *memory) : hash(id), copy(memory), stored(memory) {}

  hash_id hash;
  event_handler on[3] = {};                             // by VX_MOM_EVENT_...
  bool has_records = key_field(*hash.type) != nullptr;  // else its messages are only published
  record_table copy;                                    // as the handlers know it
  sorted_records stored;                                // as it was just read
  // Keys that this process had deleted and that may still be there, or be there again: a read hands them over once
  // more, and the handlers decide anew.
  std::set<std::string, std::less<>> doubtful = {};
};

struct output_source {
  output_source(const hash_id &id, std::string_view whose, std::pmr::memory_resource *memory)
      : hash(id), owner(whose), wanted(memory) {}

  hash_id hash;
  std::string owner;     // whose records these are; empty: nobody's in particular
  record_table wanted;   // as it shall be; marked with the comparison that met the record
  bool readable = true;  // the last read of it succeeded
  size_t met = 0;        // records that carry the mark; 0 when some were changed since
};

class registration final : public vx_mom_ab, public ko_platform::attachment, private engine_user {
 public:
  registration(vx_global &context, std::string app_name, std::unique_ptr<engine> engine);
  ~registration() override;

  // The calls of vx_mom.h; statuses as there.
  uint32_t declare(const mom_ds_entry *inputs, uint32_t n_inputs, const mom_ds_entry *outputs, uint32_t n_outputs);
  int32_t set_option(uint32_t declaration, uint32_t option, uint32_t value);
  int32_t on_key_event(const mom_ds_entry &input, uint32_t kind, event_handler handler);
  void on_all_read(vx_mom_all_ds_cb handler, void *context);
  int32_t put(uint32_t db, const ProtobufCMessage &message, change_kind kind);

  // Publishes a text that is no record; lost while the store is away.
  void publish(std::string_view channel, std::string_view text);

  void pause() override;  // what is announced then is read after it
  bool quiet() const override { return !up_ || engine_->quiet(); }
  void resume() override;

  // Called after every event with its kind (VX_MOM_EVENT_...) and the handler's status; for dry runs and tests.
  std::function<void(uint32_t kind, const ProtobufCMessage &message, int32_t status)> on_event;

  // Called when nothing is left to read, deliver or repair, after a start and after each break.
  std::function<void()> on_live;

  const std::string &app_name() const { return app_name_; }
  const counters &counts() const { return counters_; }
  bool connected() const { return up_; }
  std::chrono::system_clock::time_point connected_since() const { return up_since_; }  // meaningless when it is not
  const char *state_name() const;                                                      // one word
  // Nothing is left to read, deliver or repair.
  bool settled() const { return state_ == state::live && waiting_.empty(); }

 private:
  enum class state { idle, starting, reading, delivering, comparing, repairing, live };

  struct waiting_change {
    size_t input;
    bool stored;  // it was read from the store; else it was announced, and the store may know better
    owned_change what;
    bool is_request = false;  // the record holds it, and nothing else counts
  };

  // engine_user
  void up() override;
  void down() override;
  void changed(size_t input, const change &announced) override;
  void malformed(size_t input) override;
  void page(size_t hash, std::span<const change> records, bool last) override;
  void unreadable(size_t hash, std::string_view why) override;
  void fetched(size_t input, std::string_view key, std::optional<std::string_view> record) override;
  void not_written(const change &lost, std::string_view why) override;
  void relieved() override;
  void requested(std::string_view request) override;

  void read_inputs();
  void forget_reads();
  void compare_outputs();
  void compare_page(output_source &output, std::span<const change> records);
  void scan_done();
  void run_slice();
  bool deliver_some(std::chrono::steady_clock::time_point until);
  bool repair_some(std::chrono::steady_clock::time_point until);
  bool drain_some(std::chrono::steady_clock::time_point until);
  void finish_delivery();
  void finish_repair();
  void repair_later();
  void repair_due();
  void wake();

  bool find_deletes(const input_source &source, std::chrono::steady_clock::time_point until);
  void take(size_t input, const change &what, bool stored);
  void apply(size_t input, const change &what, bool stored);
  void set_record(size_t input, std::string_view key, std::string_view record, bool stored);
  void delete_record(size_t input, std::string_view key);
  void take_published(size_t input, std::string_view bytes);
  void hand_over(input_source &source, uint32_t kind, const ProtobufCMessage &message);
  const ProtobufCMessage *decode(const input_source &source, std::string_view record);
  void reject(const hash_id &hash, std::string_view key, const char *why);

  input_source *input_of(const hash_id &hash);
  output_source *output_of(const change &what);
  bool is_own(const output_source &output, std::string_view key);
  bool is_compared(const output_source *output, change_kind kind) const;
  void send(const change &what);
  void keep(const change &what);
  void tell_refusal(std::string text);
  void guard(const char *doing, auto &&work);

  pool pool_;
  std::string app_name_;
  state state_ = state::idle;
  uint32_t declaration_ = 0;
  bool up_ = false;  // the engine is
  std::chrono::system_clock::time_point up_since_;
  bool paused_ = false;
  bool own_records_ = false;
  bool all_read_told_ = false;
  bool read_failed_ = false;  // it came to nothing
  bool inputs_due_ = false;   // the next repair reads the inputs, too
  size_t scans_ = 0;          // not finished yet
  std::vector<std::unique_ptr<input_source>> inputs_;
  std::vector<std::unique_ptr<output_source>> outputs_;
  vx_mom_all_ds_cb all_read_ = nullptr;
  void *all_read_context_ = nullptr;

  // Where delivery and repair are: the source, and what of it is done.
  enum class step { begin, compare, carry_out };
  size_t position_ = 0;
  uint32_t comparison_ = 0;  // number of the last one
  step step_ = step::begin;
  size_t next_known_ = 0;                      // next bucket to compare: of the copy, or of what is wanted
  std::set<std::string> deletes_;              // keys of what has gone
  std::map<std::string, owned_change> loose_;  // what no comparison brings about: sent until it is written
  std::deque<waiting_change> waiting_;

  std::unordered_set<size_t> told_;      // hashes of the keys of what was passed over
  std::set<std::string> refusals_told_;  // since the store took everything
  int repair_pause_ms_ = 0;
  bool repair_wrote_ = false;
  counters counters_;
  arena arena_;
  owned_change written_;  // kept for its memory
  ko_platform::event_ptr slice_event_;
  ko_platform::event_ptr repair_event_;
  std::unique_ptr<engine> engine_;  // last: it goes first
};

// The registration of a context, or null.
registration *registration_of(vx_global *global);

}  // namespace ko_store
