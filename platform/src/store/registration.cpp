#include "store/registration.h"

#include <malloc.h>

#include <new>
#include <utility>

#include "platform_log.h"
#include "store/layout.h"
#include "store/record_text.h"

namespace ko_store {
namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;
using action = sync_machine::action;
using state = sync_machine::state;

constexpr auto slice_time = 5ms;

}  // namespace

registration::registration(vx_global &context, std::string app_name, std::unique_ptr<engine> engine)
    : vx_mom_ab{&context}, app_name_(std::move(app_name)), engine_(std::move(engine)) {
  event_base *base = ko_platform::context_of(&context).base.get();
  slice_event_.reset(event_new(
      base, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<registration *>(self)->run_slice(); }, this));
  const auto on_timer = [](evutil_socket_t, short, void *self) {
    static_cast<registration *>(self)->carry_out(static_cast<registration *>(self)->machine_.timer_fired());
  };
  repair_event_.reset(event_new(base, -1, 0, on_timer, this));
  if (slice_event_ == nullptr || repair_event_ == nullptr) throw std::bad_alloc();
  engine_->serve(app_name_);
}

registration::~registration() = default;

registration *registration_of(vx_global *global) {
  if (global == nullptr) return nullptr;
  return static_cast<registration *>(ko_platform::context_of(global).store.get());
}

// ---- declaration ----

uint32_t registration::declare(const mom_ds_entry *inputs, uint32_t n_inputs, const mom_ds_entry *outputs,
                               uint32_t n_outputs) {
  std::vector<hash_id> hashes;
  std::vector<wanted_outputs::declaration> wanted;
  const auto add = [&](const mom_ds_entry &entry, bool is_output) {
    if (entry.record == nullptr || (is_output && key_field(*entry.record->descriptor) == nullptr)) {
      PLATFORM_ERROR("a data source of database %u has no record, or one without index", entry.db_id);
      return false;
    }
    hashes.push_back({entry.db_id, entry.record->descriptor});
    const ProtobufCMessage *key = is_output ? key_of(*entry.record) : nullptr;
    const auto owner = key == nullptr ? std::nullopt : owner_of(*key);
    if (is_output) wanted.push_back({hashes.back(), std::string(owner.value_or(""))});
    return true;
  };
  for (uint32_t i = 0; i < n_inputs; ++i)
    if (!add(inputs[i], false)) return 0;
  for (uint32_t i = 0; i < n_outputs; ++i)
    if (!add(outputs[i], true)) return 0;

  inputs_.declare(std::span(hashes).first(n_inputs));
  outputs_.declare(wanted);
  all_read_reported_ = false;
  down();
  engine_->start(*this, std::move(hashes), n_inputs);
  return ++declaration_;
}

void registration::listen() {
  down();
  engine_->start(*this, {}, 0);
}

void registration::put_behind(const fence &what, std::function<void()> fenced_off) {
  fenced_off_ = std::move(fenced_off);
  engine_->put_behind(what);
}

int32_t registration::set_option(uint32_t declaration, uint32_t option, uint32_t value) {
  if (declaration == 0 || declaration != declaration_) return VX_MOM_UNKNOWN;
  if (option != VX_MOM_OPT_OWN_RECORDS) return VX_MOM_INVALID;
  outputs_.set_own_records(value != 0);
  return VX_MOM_OK;
}

int32_t registration::on_key_event(const mom_ds_entry &input, uint32_t kind, event_handler handler) {
  if (input.record == nullptr || handler.call == nullptr || kind > VX_MOM_EVENT_PUBLISH) return VX_MOM_INVALID;
  const auto found = inputs_.find({input.db_id, input.record->descriptor});
  if (!found.has_value()) return VX_MOM_UNKNOWN;
  inputs_.set_handler(*found, kind, handler);
  return VX_MOM_OK;
}

void registration::on_all_read(vx_mom_all_ds_cb handler, void *context) {
  all_read_ = handler;
  all_read_context_ = context;
}

// ---- writing ----

int32_t registration::put(uint32_t db, const ProtobufCMessage &message, change_kind kind) {
  if (!make_change(db, kind, message, written_)) return VX_MOM_MISSING;
  const change what = written_;
  const bool is_compared = outputs_.note(what);
  if (machine_.sends(is_compared)) {
    if (!is_compared) outputs_.pending.drop(what);  // an older change of the key must not come later
    send(what);
  } else if (!is_compared) {
    outputs_.pending.add(what);
  }
  return VX_MOM_OK;
}

void registration::publish(std::string_view channel, std::string_view text) {
  if (up_) engine_->publish(channel, text);
}

void registration::send(const change &what) try {
  ++counters_.writes;
  counters_.deletes += what.kind == change_kind::del ? 1 : 0;
  counters_.published += what.kind == change_kind::publish ? 1 : 0;
  engine_->write(what);
} catch (const std::bad_alloc &) {
  carry_out(machine_.repair_wanted());
  throw;
}

void registration::not_written(const change &lost, std::string_view why) {
  guard("a write was not carried out", [&] {
    if (doubt_delete(lost))
      machine_.inputs_in_doubt();
    else if (!outputs_.is_compared(lost))
      outputs_.pending.add(lost);
    if (why.empty()) return;
    ++counters_.refused;
    if (report(std::string(why))) {
      const message_ptr record = unpack(*lost.hash.type, lost.record);
      PLATFORM_ERROR("the store refused %s %s, key %s: %.*s; it is tried again until the store takes it",
                     channel_name(lost.hash).c_str(), record == nullptr ? "" : to_text(*record).c_str(),
                     to_hex(lost.key).c_str(), static_cast<int>(why.size()), why.data());
    }
    carry_out(machine_.repair_wanted());
  });
}

// A record of an input that this process deletes is not deleted by force: after a break its handlers decide anew.
bool registration::doubt_delete(const change &what) {
  const auto input = what.kind == change_kind::del ? inputs_.find(what.hash) : std::nullopt;
  if (input.has_value()) inputs_.doubt(*input, what.key);
  return input.has_value();
}

// Whether that was not reported yet.
bool registration::report(std::string refusal) { return reported_.insert(std::move(refusal)).second; }

// ---- the machine ----

// Runs what may exhaust memory on an event of the loop. What it leaves half done, a new read puts right.
void registration::guard(const char *doing, auto &&work) try { work(); } catch (const std::bad_alloc &) {
  PLATFORM_ERROR("memory is exhausted while %s; the store will be read again", doing);
  machine_.read_failed();
  carry_out(machine_.repair_wanted());
}

void registration::carry_out(action next) {
  const int pause_ms = machine_.pause_ms();
  const timeval pause{pause_ms / 1000, pause_ms % 1000 * 1000L};
  switch (next) {
    case action::none:
      return;
    case action::read:
      return guard("reading the store", [this] { read_inputs(); });
    case action::deliver:
      inputs_.begin_delivery();
      return wake();
    case action::compare:
      return guard("reading the store", [this] { compare_outputs(); });
    case action::repair:
      outputs_.begin_repair();
      return wake();
    case action::wait:
      if (!machine_.takes_changes()) waiting_.clear();  // it is read anyway
      event_add(repair_event_.get(), &pause);
  }
}

void registration::up() {
  up_ = true;
  up_since_ = std::chrono::system_clock::now();
  carry_out(machine_.engine_up());
}

void registration::down() {
  up_ = false;
  machine_.engine_down();
  forget_reads();
}

void registration::pause() {
  machine_.paused();
  forget_reads();
}

void registration::resume() { carry_out(machine_.resumed()); }

// What was read and announced counts no more.
void registration::forget_reads() {
  waiting_.clear();
  inputs_.begin_read();
  guard("the store is away",
        [this] { outputs_.pending.drop_if([this](const change &pending) { return doubt_delete(pending); }); });
}

void registration::read_inputs() {
  counters_.reads += inputs_.size() > 0 ? 1 : 0;
  inputs_.begin_read();
  for (size_t i = 0; i < inputs_.size(); ++i) {
    if (!inputs_.has_records(i)) continue;
    engine_->scan(i);
    machine_.scan_begun();  // only now: a scan that could not be begun is not waited for
  }
  carry_out(machine_.scans_begun());
}

void registration::compare_outputs() {
  outputs_.begin_comparison();
  for (size_t i = 0; i < outputs_.n_compared(); ++i) {
    engine_->scan(inputs_.size() + i);
    machine_.scan_begun();
  }
  carry_out(machine_.scans_begun());
}

void registration::page(size_t hash, std::span<const change> records, bool last) {
  if (!machine_.expects_pages()) return;
  guard("reading the store", [&] {
    if (hash < inputs_.size())
      inputs_.add_read(hash, records);
    else
      outputs_.compare(hash - inputs_.size(), records, send_);
  });
  if (last) carry_out(machine_.scan_ended());
}

void registration::unreadable(size_t hash, std::string_view why) {
  if (!machine_.expects_pages()) return;
  const bool is_input = hash < inputs_.size();
  guard("reading the store", [&] {
    const hash_id &id = is_input ? inputs_.hash(hash) : outputs_.hash(hash - inputs_.size());
    const std::string refusal = channel_name(id) + " cannot be read: " + std::string(why);
    if (report(refusal))
      PLATFORM_ERROR("%s; %stried again", refusal.c_str(),
                     is_input ? "nothing is delivered or repaired until it can, " : "");
  });
  if (is_input)
    machine_.read_failed();
  else
    outputs_.set_unreadable(hash - inputs_.size());
  carry_out(machine_.scan_ended());
}

// ---- slices of long work ----

// A timer, not an active event: the loop looks at its sockets before the next slice.
void registration::wake() {
  const timeval at_once{0, 0};
  event_add(slice_event_.get(), &at_once);
}

void registration::relieved() { wake(); }

void registration::run_slice() {
  guard("working on the store", [&] {
    const auto until = clock::now() + slice_time;
    const auto interrupted = [&] { return engine_->congested() || clock::now() >= until; };
    if (machine_.now() == state::delivering && inputs_.deliver_some(until)) finish_delivery();
    if (machine_.now() == state::repairing && outputs_.repair_some(interrupted, send_)) finish_repair();
    const bool works = machine_.now() == state::delivering || machine_.now() == state::repairing;
    const bool done = machine_.is_live() ? drain_some(until) : !works;
    if (!done && !engine_->congested()) wake();
  });
}

void registration::finish_delivery() {
  was_read_ = true;
  if (!all_read_reported_) {
    all_read_reported_ = true;
    if (all_read_ != nullptr) all_read_(all_read_context_);
  }
  carry_out(machine_.delivered());
}

// Until a comparison finds nothing to write, a refusal may still be on its way.
void registration::finish_repair() {
  const bool was_refused = !reported_.empty();
  carry_out(machine_.repaired(!was_refused || outputs_.is_right()));
  if (std::exchange(was_read_, false)) malloc_trim(0);  // buffers of the read lie between what was made of it
  if (was_refused && !outputs_.is_right()) return;
  if (was_refused) PLATFORM_WARN("the store can be read and takes everything again");
  reported_.clear();
  if (const auto told = on_live; told && declaration_ > 0) told();
}

const char *registration::state_name() const {
  if (machine_.is_live()) return "serving";
  return machine_.now() == state::idle ? to_string(state::starting) : to_string(machine_.now());
}

// Returns whether nothing waits any more.
bool registration::drain_some(deadline until) {
  while (!waiting_.empty()) {
    if (!machine_.is_live()) return true;
    const waiting_change next = std::move(waiting_.front());
    waiting_.pop_front();
    if (next.is_request)
      ko_platform::context_of(global).requests.take(next.what.record);
    else
      apply(next.input, next.what, next.is_stored);
    if (clock::now() >= until) return waiting_.empty();
  }
  return true;
}

// While changes wait, it waits behind them; while the store is read, the answer says so.
void registration::requested(std::string_view request) {
  guard("taking a request", [&] {
    if (machine_.is_live() && !waiting_.empty())
      waiting_.push_back({0, false, {{}, change_kind::publish, {}, std::string(request)}, true});
    else
      ko_platform::context_of(global).requests.take(request);
  });
}

// ---- changes ----

// What is only published tells of nothing that is stored, so it need not wait for what is being read.
void registration::changed(size_t input, const change &announced) {
  guard("taking a change", [&] {
    if (announced.kind == change_kind::publish)
      inputs_.apply_published(input, announced.record);
    else if (inputs_.has_records(input))
      take(input, announced, false);
  });
}

void registration::malformed(size_t input) { inputs_.reject(input, {}, "it is no announcement"); }

// What is being read may be newer.
void registration::fetched(size_t input, std::string_view key, std::optional<std::string_view> record) {
  if (machine_.now() == state::reading) return;
  guard("taking a record", [&] {
    const change_kind kind = record.has_value() ? change_kind::set : change_kind::del;
    take(input, {inputs_.hash(input), kind, key, record.value_or("")}, true);
  });
}

void registration::take(size_t input, const change &what, bool is_stored) {
  if (!machine_.takes_changes()) return;
  if (settled())
    apply(input, what, is_stored);
  else
    waiting_.push_back({input, is_stored, copy_of(what)});
}

void registration::apply(size_t input, const change &what, bool is_stored) {
  if (!inputs_.apply(input, what, is_stored)) engine_->fetch(input, what.key);
}

}  // namespace ko_store
