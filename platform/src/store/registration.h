// One process's registration with the store. It joins the copies of what the process reads, what it wants in its
// outputs, the engine, and the machine that says what is to be done; and it keeps the time. Long work is done in
// slices, so that the loop stays free.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "global_context.h"
#include "store/counters.h"
#include "store/engine.h"
#include "store/input_copies.h"
#include "store/sync_machine.h"
#include "store/wanted_outputs.h"
#include "vx_mom.h"

namespace ko_store {

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

  // Listens to requests before anything is declared.
  void listen();
  // Before the declaration, for a process that is one of several; `fenced_off` is called once it may write no more.
  void put_behind(const fence &what, std::function<void()> fenced_off);

  void pause() override;  // what is announced then is read after it
  bool quiet() const override { return !up_ || engine_->quiet(); }
  void resume() override;

  event_observer on_event;  // for dry runs and tests

  // Called when nothing is left to read, deliver or repair, after a start and after each break.
  std::function<void()> on_live;

  const std::string &app_name() const { return app_name_; }
  const counters &counts() const { return counters_; }
  bool connected() const { return up_; }
  std::chrono::system_clock::time_point connected_since() const { return up_since_; }  // meaningless when it is not
  const char *state_name() const;                                                      // one word
  // Nothing is left to read, deliver or repair.
  bool settled() const { return machine_.is_live() && waiting_.empty(); }

 private:
  struct waiting_change {
    size_t input;
    bool is_stored;  // it was read from the store; else it was announced
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
  void fenced_off() override { fenced_off_(); }

  void carry_out(sync_machine::action next);
  void read_inputs();
  void compare_outputs();
  void forget_reads();
  void run_slice();
  void finish_delivery();
  void finish_repair();
  bool drain_some(deadline until);
  void wake();

  void take(size_t input, const change &what, bool is_stored);
  void apply(size_t input, const change &what, bool is_stored);
  bool doubt_delete(const change &what);
  void send(const change &what);
  bool report(std::string refusal);
  void guard(const char *doing, auto &&work);

  counters counters_;
  sync_machine machine_;
  input_copies inputs_{counters_, on_event};
  wanted_outputs outputs_;
  const wanted_outputs::sender send_ = [this](const change &what) { send(what); };

  std::string app_name_;
  uint32_t declaration_ = 0;
  std::function<void()> fenced_off_;
  bool up_ = false;  // the engine is
  std::chrono::system_clock::time_point up_since_;
  bool all_read_reported_ = false;
  bool was_read_ = false;  // everything, and what came of it is not repaired yet
  vx_mom_all_ds_cb all_read_ = nullptr;
  void *all_read_context_ = nullptr;

  std::deque<waiting_change> waiting_;
  std::set<std::string, std::less<>> reported_;  // refusals, since the store took everything
  owned_change written_;                         // kept for its memory
  ko_platform::event_ptr slice_event_;
  ko_platform::event_ptr repair_event_;
  std::unique_ptr<engine> engine_;  // last: it goes first
};

// The registration of a context, or null.
registration *registration_of(vx_global *global);

}  // namespace ko_store
