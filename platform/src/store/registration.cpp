#include "store/registration.h"

#include <algorithm>
#include <new>

#include "platform_log.h"
#include "store/record_text.h"

namespace ko_store {
namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

constexpr auto slice_time = 5ms;
constexpr int first_repair_pause_ms = 500;
constexpr int longest_repair_pause_ms = 30'000;
constexpr size_t buckets_a_look = 16;  // of a table, between two looks at the clock
constexpr size_t told_limit = 10'000;  // distinct bad records that are logged

constexpr const char *event_names[] = {"set", "delete", "publish"};  // by VX_MOM_EVENT_...

std::string name_of(const hash_id &hash) { return channel_name(hash.db, hash.type->name); }

void assign(sorted_records &records, std::string_view key, std::string_view record) {
  const auto found = records.find(key);
  if (found == records.end())
    records.emplace(key, record);
  else
    found->second = record;
}

// What two changes have in common of which only the later one counts.
std::string mark_of(const change &what) {
  const bool stored = what.kind != change_kind::publish;
  return name_of(what.hash).append(stored ? 1 : 2, '\0').append(stored ? what.key : what.record);
}

}  // namespace

registration::registration(vx_global &context, std::string app_name, std::unique_ptr<engine> engine)
    : vx_mom_ab{&context}, app_name_(std::move(app_name)), engine_(std::move(engine)) {
  event_base *base = ko_platform::context_of(&context).base.get();
  slice_event_.reset(event_new(
      base, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<registration *>(self)->run_slice(); }, this));
  repair_event_.reset(event_new(
      base, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<registration *>(self)->repair_due(); }, this));
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
  const auto add = [&](const mom_ds_entry &entry, bool is_output) {
    if (entry.record == nullptr || (is_output && key_field(*entry.record->descriptor) == nullptr)) {
      PLATFORM_ERROR("a data source of database %u has no record, or one without index", entry.db_id);
      return false;
    }
    hashes.push_back({entry.db_id, entry.record->descriptor});
    return true;
  };
  for (uint32_t i = 0; i < n_inputs; ++i)
    if (!add(inputs[i], false)) return 0;
  for (uint32_t i = 0; i < n_outputs; ++i)
    if (!add(outputs[i], true)) return 0;

  inputs_.clear();
  outputs_.clear();
  for (uint32_t i = 0; i < n_inputs; ++i) inputs_.push_back(std::make_unique<input_source>(hashes[i], &pool_));
  for (uint32_t i = 0; i < n_outputs; ++i) {
    const ProtobufCMessage *key = key_of(*outputs[i].record);
    const auto owner = key == nullptr ? std::nullopt : owner_of(*key);
    outputs_.push_back(std::make_unique<output_source>(hashes[n_inputs + i], owner.value_or(""), &pool_));
  }
  own_records_ = false;
  all_read_told_ = false;
  down();
  engine_->start(*this, std::move(hashes), n_inputs);
  return ++declaration_;
}

int32_t registration::set_option(uint32_t declaration, uint32_t option, uint32_t value) {
  if (declaration == 0 || declaration != declaration_) return VX_MOM_UNKNOWN;
  if (option != VX_MOM_OPT_OWN_RECORDS) return VX_MOM_INVALID;
  own_records_ = value != 0;
  return VX_MOM_OK;
}

int32_t registration::on_key_event(const mom_ds_entry &input, uint32_t kind, event_handler handler) {
  if (input.record == nullptr || handler.call == nullptr || kind > VX_MOM_EVENT_PUBLISH) return VX_MOM_INVALID;
  for (const auto &source : inputs_) {
    if (source->hash != hash_id{input.db_id, input.record->descriptor}) continue;
    source->on[kind] = handler;
    return VX_MOM_OK;
  }
  return VX_MOM_UNKNOWN;
}

void registration::on_all_read(vx_mom_all_ds_cb handler, void *context) {
  all_read_ = handler;
  all_read_context_ = context;
}

// ---- writing ----

int32_t registration::put(uint32_t db, const ProtobufCMessage &message, change_kind kind) {
  if (!make_change(db, kind, message, written_)) return VX_MOM_MISSING;
  const change what = written_;
  output_source *output = output_of(what);
  if (output != nullptr) output->met = 0;
  if (output != nullptr && kind == change_kind::set) output->wanted.put(what.key, what.record);
  if (output != nullptr && kind == change_kind::del) output->wanted.erase(what.key);

  const bool compared = is_compared(output, kind);
  if (!compared && !loose_.empty()) loose_.erase(mark_of(what));  // an older change of the key must not come later
  if (state_ == state::live || (compared && state_ >= state::comparing)) {
    send(what);
    step_ = step::begin;  // iterators may be gone; to compare a source again costs nothing but time
  } else if (!compared) {
    keep(what);
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
  repair_later();
  throw;
}

// Whether the comparison of a repair brings a change of `output` about; it may be null.
bool registration::is_compared(const output_source *output, change_kind kind) const {
  if (output == nullptr) return false;
  return kind == change_kind::set || (own_records_ && !output->owner.empty());
}

// Notes a change for when the engine can take it. One request is as good as many, and of a key only the last change
// counts.
void registration::keep(const change &what) { loose_.insert_or_assign(mark_of(what), copy_of(what)); }

input_source *registration::input_of(const hash_id &hash) {
  for (const auto &input : inputs_)
    if (input->hash == hash) return input.get();
  return nullptr;
}

// Where a change goes; null when that is no declared output.
output_source *registration::output_of(const change &what) {
  if (what.kind == change_kind::publish) return nullptr;
  for (const auto &output : outputs_)
    if (output->hash == what.hash) return output.get();
  return nullptr;
}

// ---- the engine's news ----

// Runs what may exhaust memory on an event of the loop. What it leaves half done, a new read puts right.
void registration::guard(const char *doing, auto &&work) try { work(); } catch (const std::bad_alloc &) {
  PLATFORM_ERROR("memory is exhausted while %s; the store will be read again", doing);
  read_failed_ = true;
  inputs_due_ = true;
  repair_later();
}

void registration::up() {
  up_ = true;
  up_since_ = std::chrono::system_clock::now();
  if (!paused_) guard("reading the store", [this] { read_inputs(); });
}

void registration::down() {
  up_ = false;
  forget_reads();
}

void registration::pause() {
  paused_ = true;
  forget_reads();
}

void registration::resume() {
  paused_ = false;
  if (up_) up();
}

// What is read and announced counts no more.
void registration::forget_reads() {
  state_ = state::starting;
  scans_ = 0;
  waiting_.clear();
  for (const auto &input : inputs_) input->stored.clear();
  guard("the store is away", [this] {
    for (auto entry = loose_.begin(); entry != loose_.end();) {
      input_source *input = entry->second.kind == change_kind::del ? input_of(entry->second.hash) : nullptr;
      if (input != nullptr) input->doubtful.insert(entry->second.key);
      entry = input != nullptr ? loose_.erase(entry) : std::next(entry);
    }
  });
}

void registration::read_inputs() {
  state_ = state::reading;
  read_failed_ = false;
  inputs_due_ = false;
  ++counters_.reads;
  scans_ = 0;
  for (const auto &input : inputs_) input->stored.clear();
  for (size_t i = 0; i < inputs_.size(); ++i) {
    if (!inputs_[i]->has_records) continue;
    engine_->scan(i);
    ++scans_;  // only now: a scan that could not be begun is not waited for
  }
  if (scans_ == 0) scan_done();
}

void registration::compare_outputs() {
  state_ = state::comparing;
  repair_wrote_ = false;
  read_failed_ = false;
  ++comparison_;
  scans_ = 0;
  for (const auto &output : outputs_) output->readable = true, output->met = 0;
  for (size_t i = 0; own_records_ && i < outputs_.size(); ++i, ++scans_) engine_->scan(inputs_.size() + i);
  if (scans_ == 0) scan_done();
}

void registration::page(size_t hash, std::span<const change> records, bool last) {
  if (scans_ == 0) return;
  guard("reading the store", [&] {
    if (hash < inputs_.size())
      for (const change &entry : records) assign(inputs_[hash]->stored, entry.key, entry.record);
    else
      compare_page(*outputs_[hash - inputs_.size()], records);
  });
  if (last && --scans_ == 0) scan_done();
}

void registration::compare_page(output_source &output, std::span<const change> records) {
  for (const change &stored : records) {
    record_table::entry *wanted = output.wanted.find(stored.key);
    if (wanted != nullptr && wanted->record() == stored.record) {
      output.met += wanted->mark() != comparison_ ? 1 : 0;
      wanted->set_mark(comparison_);
    } else if (wanted == nullptr && is_own(output, stored.key)) {  // left over
      repair_wrote_ = true;
      send({output.hash, change_kind::del, stored.key, {}});
    }
  }
}

void registration::unreadable(size_t hash, std::string_view why) {
  const bool is_input = hash < inputs_.size();
  guard("reading the store", [&] {
    const hash_id &id = is_input ? inputs_[hash]->hash : outputs_[hash - inputs_.size()]->hash;
    tell_refusal(name_of(id) + " cannot be read: " + std::string(why) +
                 (is_input ? "; nothing is delivered or repaired until it can, tried again" : "; tried again"));
  });
  if (is_input)
    read_failed_ = inputs_due_ = true;
  else
    outputs_[hash - inputs_.size()]->readable = false;
  if (--scans_ == 0) scan_done();
}

bool registration::is_own(const output_source &output, std::string_view key) {
  if (output.owner.empty()) return false;
  const auto *type = static_cast<const ProtobufCMessageDescriptor *>(key_field(*output.hash.type)->descriptor);
  arena_.reset();
  const ProtobufCMessage *decoded =
      protobuf_c_message_unpack(type, arena_.allocator(), key.size(), reinterpret_cast<const uint8_t *>(key.data()));
  return decoded != nullptr && owner_of(*decoded) == output.owner;
}

void registration::changed(size_t input, const change &announced) {
  guard("taking a change", [&] {
    if (announced.kind == change_kind::publish)
      take_published(input, announced.record);
    else if (inputs_[input]->has_records)
      take(input, announced, false);
  });
}

// It tells of nothing that is stored, so it need not wait for what is being read.
void registration::take_published(size_t input, std::string_view bytes) {
  const input_source &source = *inputs_[input];
  if (source.on[VX_MOM_EVENT_PUBLISH].call == nullptr) return;
  const ProtobufCMessage *message = decode(source, bytes);
  if (message == nullptr) return reject(source.hash, {}, to_string(defect::undecodable));
  hand_over(*inputs_[input], VX_MOM_EVENT_PUBLISH, *message);
}

// What comes before a read began, or while one fails, is read anyway.
void registration::take(size_t input, const change &what, bool stored) {
  if (state_ == state::starting || (state_ == state::reading && read_failed_)) return;
  if (state_ == state::live && waiting_.empty())
    apply(input, what, stored);
  else
    waiting_.push_back({input, stored, copy_of(what)});
}

void registration::malformed(size_t input) { reject(inputs_[input]->hash, {}, "it is no announcement"); }

void registration::fetched(size_t input, std::string_view key, std::optional<std::string_view> record) {
  guard("taking a record", [&] {
    const change_kind kind = record.has_value() ? change_kind::set : change_kind::del;
    take(input, {inputs_[input]->hash, kind, key, record.value_or("")}, true);
  });
}

void registration::not_written(const change &lost, std::string_view why) {
  guard("a write was not carried out", [&] {
    input_source *input = lost.kind == change_kind::del ? input_of(lost.hash) : nullptr;
    if (input != nullptr) {
      input->doubtful.emplace(lost.key);
      inputs_due_ = true;
    } else if (!is_compared(output_of(lost), lost.kind)) {
      keep(lost);
    }
    if (why.empty()) return;
    ++counters_.refused;
    if (!refusals_told_.contains(std::string(why))) {
      refusals_told_.emplace(why);
      const message_ptr record = unpack(*lost.hash.type, lost.record);
      PLATFORM_ERROR("the store refused %s %s, key %s: %.*s; it is tried again until the store takes it",
                     name_of(lost.hash).c_str(), record == nullptr ? "" : to_text(*record).c_str(),
                     to_hex(lost.key).c_str(), static_cast<int>(why.size()), why.data());
    }
    repair_later();
  });
}

void registration::tell_refusal(std::string text) {
  const auto [told, fresh] = refusals_told_.insert(std::move(text));
  if (fresh) PLATFORM_ERROR("%s", told->c_str());
}

void registration::relieved() { wake(); }

// While changes wait, it waits behind them; while the store is read, the answer says so.
void registration::requested(std::string_view request) {
  guard("taking a request", [&] {
    if (state_ == state::live && !waiting_.empty())
      waiting_.push_back({0, false, {{}, change_kind::publish, {}, std::string(request)}, true});
    else
      ko_platform::context_of(global).requests.take(request);
  });
}

void registration::repair_later() {
  if (evtimer_pending(repair_event_.get(), nullptr)) return;
  repair_pause_ms_ = std::clamp(2 * repair_pause_ms_, first_repair_pause_ms, longest_repair_pause_ms);
  const timeval pause{repair_pause_ms_ / 1000, repair_pause_ms_ % 1000 * 1000L};
  event_add(repair_event_.get(), &pause);
}

// Compares the outputs again, and the inputs too when something is amiss with what is known of them.
void registration::repair_due() {
  if (state_ == state::starting) return;  // the connection reads everything when it is back
  if (scans_ > 0 || (state_ != state::live && !read_failed_)) return repair_later();
  guard("reading the store", [this] { inputs_due_ ? read_inputs() : compare_outputs(); });
}

// ---- slices of long work ----

// A timer, not an active event: the loop looks at its sockets before the next slice.
void registration::wake() {
  const timeval at_once{0, 0};
  event_add(slice_event_.get(), &at_once);
}

// All that was asked for has come.
void registration::scan_done() {
  if (read_failed_) {
    waiting_.clear();  // it is read anyway
    return repair_later();
  }
  state_ = state_ == state::reading ? state::delivering : state::repairing;
  position_ = 0;
  step_ = step::begin;
  wake();
}

void registration::run_slice() {
  guard("working on the store", [&] {
    const auto until = clock::now() + slice_time;
    if (state_ == state::delivering && deliver_some(until)) finish_delivery();
    if (state_ == state::repairing && repair_some(until)) finish_repair();
    const bool done =
        state_ == state::live ? drain_some(until) : state_ != state::delivering && state_ != state::repairing;
    if (!done && !engine_->congested()) wake();
  });
}

// Finds what has gone. It is delivered before what has come, so that a member that changed its target leaves the old
// one first. Returns whether all of it was found.
bool registration::find_deletes(const input_source &source, clock::time_point until) {
  for (; next_known_ < source.copy.n_buckets(); ++next_known_) {
    if (next_known_ % buckets_a_look == 0 && clock::now() >= until) return false;
    source.copy.visit_bucket(next_known_, [&](const record_table::entry &known) {
      if (!source.stored.contains(known.key())) deletes_.emplace(known.key());
    });
  }
  return true;
}

// Returns whether everything was delivered.
bool registration::deliver_some(clock::time_point until) {
  for (; position_ < inputs_.size(); ++position_, step_ = step::begin) {
    input_source &source = *inputs_[position_];
    if (step_ == step::begin) {
      deletes_.clear();
      source.copy.reserve(source.stored.size());
      next_known_ = 0;
      step_ = step::compare;
    }
    if (step_ == step::compare && !find_deletes(source, until)) return false;
    step_ = step::carry_out;
    while (!deletes_.empty()) {
      const std::string key = std::move(deletes_.extract(deletes_.begin()).value());
      delete_record(position_, key);
      if (clock::now() >= until) return false;
    }
    for (; !source.stored.empty(); source.stored.erase(source.stored.begin())) {  // freed piece by piece, too
      if (clock::now() >= until) return false;
      const auto &[key, record] = *source.stored.begin();
      const record_table::entry *known = source.copy.find(key);
      if (known == nullptr || known->record() != record || source.doubtful.contains(std::string_view(key)))
        set_record(position_, key, record, true);
    }
    source.doubtful.clear();
  }
  return true;
}

void registration::finish_delivery() {
  if (!all_read_told_) {
    all_read_told_ = true;
    if (all_read_ != nullptr) all_read_(all_read_context_);
  }
  compare_outputs();
}

// Returns whether nothing is left to send.
bool registration::repair_some(clock::time_point until) {
  const auto interrupted = [&] { return engine_->congested() || clock::now() >= until; };
  for (; position_ < outputs_.size(); ++position_, step_ = step::begin) {
    const output_source &output = *outputs_[position_];
    if (!output.readable || output.met == output.wanted.size()) continue;
    if (step_ == step::begin) next_known_ = 0, step_ = step::compare;
    for (; next_known_ < output.wanted.n_buckets(); ++next_known_) {
      if (next_known_ % buckets_a_look == 0 && interrupted()) return false;
      output.wanted.visit_bucket(next_known_, [&](const record_table::entry &wanted) {
        if (wanted.mark() == comparison_) return;
        repair_wrote_ = true;
        send({output.hash, change_kind::set, wanted.key(), wanted.record()});
      });
    }
  }
  for (; !loose_.empty(); loose_.erase(loose_.begin())) {
    if (interrupted()) return false;
    repair_wrote_ = true;
    send(loose_.begin()->second);
  }
  return true;
}

void registration::finish_repair() {
  state_ = state::live;
  if (!refusals_told_.empty()) {
    const bool all_readable = std::all_of(outputs_.begin(), outputs_.end(), [](const auto &o) { return o->readable; });
    // Until a comparison finds nothing to write, a refusal may still be on its way.
    if (repair_wrote_ || !all_readable) return repair_later();
    PLATFORM_WARN("the store can be read and takes everything again");
    refusals_told_.clear();
  }
  repair_pause_ms_ = 0;
  if (const auto told = on_live) told();
}

const char *registration::state_name() const {
  switch (state_) {
    case state::reading:
      return "reading";
    case state::delivering:
      return "delivering";
    case state::comparing:
      return "comparing";
    case state::repairing:
      return "repairing";
    case state::live:
      return "serving";
    default:
      return "starting";
  }
}

// Returns whether nothing waits any more.
bool registration::drain_some(clock::time_point until) {
  while (!waiting_.empty()) {
    if (state_ != state::live) return true;
    const waiting_change next = std::move(waiting_.front());
    waiting_.pop_front();
    if (next.is_request)
      ko_platform::context_of(global).requests.take(next.what.record);
    else
      apply(next.input, next.what, next.stored);
    if (clock::now() >= until) return waiting_.empty();
  }
  return true;
}

// ---- events ----

void registration::apply(size_t input, const change &what, bool stored) {
  if (what.kind == change_kind::del) return delete_record(input, what.key);
  const record_table::entry *known = stored ? inputs_[input]->copy.find(what.key) : nullptr;
  if (known == nullptr || known->record() != what.record) set_record(input, what.key, what.record, stored);
}

// `stored`: the record was read from the store; else it was announced, and the store may know better.
void registration::set_record(size_t input, std::string_view key, std::string_view record, bool stored) {
  input_source &source = *inputs_[input];
  const ProtobufCMessage *message = decode(source, record);
  const defect why = check_record(message, key);
  if (why == defect::none) {
    source.copy.put(key, record);
    hand_over(source, VX_MOM_EVENT_SET, *message);
    return;
  }
  reject(source.hash, key, to_string(why));
  if (stored)
    delete_record(input, key);
  else if (source.copy.contains(key))
    engine_->fetch(input, key);
}

void registration::delete_record(size_t input, std::string_view key) {
  input_source &source = *inputs_[input];
  const record_table::entry *known = source.copy.find(key);
  if (known == nullptr) return;
  const ProtobufCMessage *message = decode(source, known->record());
  if (message == nullptr) throw std::bad_alloc();  // it decoded when it came
  source.copy.erase(key);
  hand_over(source, VX_MOM_EVENT_DEL, *message);
}

void registration::hand_over(input_source &source, uint32_t kind, const ProtobufCMessage &message) {
  const event_handler &handler = source.on[kind];
  if (handler.call == nullptr) return;
  ++counters_.events;
  const int32_t status = handler.call(handler.context, kind == VX_MOM_EVENT_DEL ? 1 : 0, &message);
  if (on_event) on_event(kind, message, status);
  if (status == 0) return;
  ++counters_.handler_failures;
  PLATFORM_WARN("the handler of the %s event of %s %s answered with status %d", event_names[kind],
                name_of(source.hash).c_str(), to_text(message).c_str(), status);
}

// Owned by the arena until the next one is decoded.
const ProtobufCMessage *registration::decode(const input_source &source, std::string_view record) {
  arena_.reset();
  return protobuf_c_message_unpack(source.hash.type, arena_.allocator(), record.size(),
                                   reinterpret_cast<const uint8_t *>(record.data()));
}

void registration::reject(const hash_id &hash, std::string_view key, const char *why) {
  ++counters_.rejected;
  if (told_.size() >= told_limit) return;
  if (!told_.insert(std::hash<std::string>{}(name_of(hash).append(1, '\0').append(key))).second) return;
  PLATFORM_ERROR("a record of %s is passed over: %s, key %s", name_of(hash).c_str(), why, to_hex(key).c_str());
  if (told_.size() == told_limit) PLATFORM_ERROR("further records that are passed over are only counted");
}

}  // namespace ko_store
