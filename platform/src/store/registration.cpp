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
constexpr size_t told_limit = 10'000;  // distinct bad records that are logged

bool same(const hash_id &a, const hash_id &b) { return a.db == b.db && a.type == b.type; }

std::string name_of(const hash_id &hash) { return channel_name(hash.db, hash.type->name); }

template <class Map>
void assign(Map &map, std::string_view key, std::string_view record) {
  const auto found = map.find(key);
  if (found == map.end())
    map.emplace(key, record);
  else
    found->second = record;
}

void erase(record_map &map, std::string_view key) {
  const auto found = map.find(key);
  if (found != map.end()) map.erase(found);
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
  const auto add = [&](const mom_ds_entry &entry) {
    if (entry.record == nullptr || key_field(*entry.record->descriptor) == nullptr) {
      PLATFORM_ERROR("a data source of database %u has no record, or one without index", entry.db_id);
      return false;
    }
    hashes.push_back({entry.db_id, entry.record->descriptor});
    return true;
  };
  for (uint32_t i = 0; i < n_inputs; ++i)
    if (!add(inputs[i])) return 0;
  for (uint32_t i = 0; i < n_outputs; ++i)
    if (!add(outputs[i])) return 0;

  inputs_.clear();
  outputs_.clear();
  for (uint32_t i = 0; i < n_inputs; ++i)
    inputs_.push_back(
        std::make_unique<input_source>(input_source{hashes[i], {}, record_map(&pool_), sorted_records(&pool_)}));
  for (uint32_t i = 0; i < n_outputs; ++i) {
    const ProtobufCMessage *key = key_of(*outputs[i].record);
    const auto owner = key == nullptr ? std::nullopt : owner_of(*key);
    outputs_.push_back(std::make_unique<output_source>(output_source{
        hashes[n_inputs + i], std::string(owner.value_or("")), record_map(&pool_), sorted_records(&pool_)}));
  }
  own_records_ = false;
  all_read_told_ = false;
  waiting_.clear();
  state_ = state::starting;
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
  if (input.record == nullptr || handler.call == nullptr || kind > VX_MOM_EVENT_DEL) return VX_MOM_INVALID;
  for (const auto &source : inputs_) {
    if (!same(source->hash, {input.db_id, input.record->descriptor})) continue;
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
  const ProtobufCMessage *key = key_of(message);
  key_buffer_.clear();
  record_buffer_.clear();
  if (kind != change_kind::publish) {
    if (key == nullptr) return VX_MOM_MISSING;
    append_packed(*key, key_buffer_);
  }
  if (kind != change_kind::del) append_packed(message, record_buffer_);

  const change what{{db, message.descriptor}, kind, key_buffer_, record_buffer_};
  output_source *output = kind == change_kind::publish ? nullptr : output_of(what.hash);
  if (output != nullptr && kind == change_kind::set) assign(output->wanted, key_buffer_, record_buffer_);
  if (output != nullptr && kind == change_kind::del) erase(output->wanted, key_buffer_);

  if (state_ == state::live)
    send(what);
  else if (output == nullptr)
    keep(what);
  else if (state_ == state::repairing)
    position_ = 0, planned_ = false;  // compare again from the start
  return VX_MOM_OK;
}

void registration::send(const change &what) {
  ++counters_.writes;
  engine_->write(what);
}

// Notes a change that no comparison would bring about, for when the engine can take it. One request is as good as many.
void registration::keep(const change &what) {
  std::string mark = name_of(what.hash);
  mark.append(1, '\0').append(1, static_cast<char>(what.kind)).append(what.key).append(1, '\0').append(what.record);
  if (!loose_seen_.insert(std::move(mark)).second) return;
  loose_.push_back({what.hash, what.kind, std::string(what.key), std::string(what.record)});
}

output_source *registration::output_of(const hash_id &hash) {
  for (const auto &output : outputs_)
    if (same(output->hash, hash)) return output.get();
  return nullptr;
}

// ---- the engine's news ----

// Runs what may exhaust memory on an event of the loop. What it leaves half done, a new read puts right.
void registration::guard(const char *doing, auto &&work) try { work(); } catch (const std::bad_alloc &) {
  PLATFORM_ERROR("memory is exhausted while %s; the store will be read again", doing);
  read_failed_ = true;
  repair_later();
}

void registration::up() { read_all(true); }

void registration::down() {
  state_ = state::starting;
  read_failed_ = false;
  waiting_.clear();
  for (const auto &input : inputs_) input->stored.clear();
  for (const auto &output : outputs_) output->stored.clear();
}

void registration::read_all(bool inputs_too) {
  state_ = state::reading;
  inputs_read_ = inputs_too;
  read_failed_ = false;
  counters_.reads += inputs_too ? 1 : 0;
  scans_ = (inputs_too ? inputs_.size() : 0) + (own_records_ ? outputs_.size() : 0);
  for (const auto &input : inputs_) input->stored.clear();
  for (const auto &output : outputs_) output->stored.clear();
  if (inputs_too)
    for (size_t i = 0; i < inputs_.size(); ++i) engine_->scan(i);
  if (own_records_)
    for (size_t i = 0; i < outputs_.size(); ++i) engine_->scan(inputs_.size() + i);
  if (scans_ == 0) read_done();
}

void registration::page(size_t hash, std::span<const stored_record> records, bool last) {
  if (state_ != state::reading) return;
  guard("reading the store", [&] {
    if (hash < inputs_.size()) {
      for (const stored_record &entry : records) assign(inputs_[hash]->stored, entry.key, entry.record);
    } else {
      output_source &output = *outputs_[hash - inputs_.size()];
      for (const stored_record &entry : records)
        if (is_own(output, entry.key)) assign(output.stored, entry.key, entry.record);
    }
    if (last && --scans_ == 0) read_done();
  });
}

void registration::unreadable(size_t hash, std::string_view why) {
  const hash_id &id = hash < inputs_.size() ? inputs_[hash]->hash : outputs_[hash - inputs_.size()]->hash;
  const std::string reason = name_of(id) + ": " + std::string(why);
  if (refusal_told_ != reason)
    PLATFORM_ERROR("%s; nothing is delivered or repaired until it can be read, tried again", reason.c_str());
  refusal_told_ = reason;
  read_failed_ = true;
  if (--scans_ == 0) read_done();
}

bool registration::is_own(const output_source &output, std::string_view key) {
  if (output.owner.empty()) return output.wanted.contains(key);
  const auto *type = static_cast<const ProtobufCMessageDescriptor *>(key_field(*output.hash.type)->descriptor);
  arena_.reset();
  const ProtobufCMessage *decoded =
      protobuf_c_message_unpack(type, arena_.allocator(), key.size(), reinterpret_cast<const uint8_t *>(key.data()));
  return decoded != nullptr && owner_of(*decoded) == output.owner;
}

void registration::changed(size_t input, const announcement &what) {
  if (state_ == state::starting || what.kind == change_kind::publish) return;
  guard("taking a change", [&] {
    if (state_ == state::live && waiting_.empty())
      apply(input, what);
    else
      waiting_.push_back({input, what.kind, std::string(what.key), std::string(what.record)});
  });
}

void registration::malformed(size_t input) { reject(inputs_[input]->hash, {}, "it is no announcement"); }

void registration::fetched(size_t input, std::string_view key, std::optional<std::string_view> record) {
  if (state_ != state::live) return;
  guard("taking a record", [&] {
    const auto known = inputs_[input]->copy.find(key);
    if (!record.has_value())
      delete_record(input, key);
    else if (known == inputs_[input]->copy.end() || known->second != *record)
      set_record(input, key, *record, true);
  });
}

void registration::undone(const change &what, std::string_view why) {
  guard("a write was not carried out", [&] {
    const bool loose = what.kind == change_kind::publish || output_of(what.hash) == nullptr;
    if (loose) keep(what);
    if (why.empty()) return;
    ++counters_.refused;
    if (refusal_told_ != why) {
      refusal_told_ = why;
      const message_ptr record = unpack(*what.hash.type, what.record);
      PLATFORM_ERROR("the store refused %s %s, key %s: %.*s; it is tried again until the store takes it",
                     name_of(what.hash).c_str(), record == nullptr ? "" : to_text(*record).c_str(),
                     to_hex(what.key).c_str(), static_cast<int>(why.size()), why.data());
    }
    repair_later();
  });
}

void registration::relieved() { wake(true); }

void registration::repair_later() {
  repair_pause_ms_ = std::clamp(2 * repair_pause_ms_, first_repair_pause_ms, longest_repair_pause_ms);
  if (evtimer_pending(repair_event_.get(), nullptr)) return;
  const timeval pause{repair_pause_ms_ / 1000, repair_pause_ms_ % 1000 * 1000L};
  event_add(repair_event_.get(), &pause);
}

// Compares the outputs again, and the inputs too when the last read of them came to nothing.
void registration::repair_due() {
  if (state_ == state::live || read_failed_)
    read_all(read_failed_);
  else if (state_ != state::starting)
    repair_later();
}

// ---- slices of long work ----

// A timer, not an active event: the loop looks at its sockets before the next slice.
void registration::wake(bool now) {
  const timeval pause{0, now ? 0 : 1000};
  event_add(slice_event_.get(), &pause);
}

void registration::read_done() {
  if (read_failed_) return repair_later();
  state_ = state::delivering;
  position_ = inputs_read_ ? 0 : inputs_.size();
  planned_ = false;
  wake(true);
}

void registration::run_slice() {
  guard("working on the store", [&] {
    const auto until = clock::now() + slice_time;
    if (state_ == state::delivering && deliver_some(until)) finish_delivery();
    if (state_ == state::repairing && repair_some(until)) finish_repair();
    const bool done = state_ == state::live ? drain_some(until) : state_ <= state::reading;
    if (!done && !engine_->congested()) wake(true);
  });
}

// Finds what has gone. It is delivered before what has come, so that a member that changed its target leaves the old
// one first.
void registration::plan_deletes(input_source &source) {
  deletes_.clear();
  for (const auto &[key, record] : source.copy)
    if (!source.stored.contains(std::string_view(key))) deletes_.emplace_back(key);
  std::sort(deletes_.begin(), deletes_.end(), std::greater<>());
  next_ = source.stored.begin();
  planned_ = true;
}

// Returns whether everything was delivered.
bool registration::deliver_some(clock::time_point until) {
  for (; position_ < inputs_.size(); ++position_, planned_ = false) {
    input_source &source = *inputs_[position_];
    if (!planned_) plan_deletes(source);
    while (!deletes_.empty()) {
      const std::string key = std::move(deletes_.back());
      deletes_.pop_back();
      delete_record(position_, key);
      if (clock::now() >= until) return false;
    }
    while (next_ != source.stored.end()) {
      const auto &[key, record] = *next_++;
      const auto known = source.copy.find(std::string_view(key));
      if (known == source.copy.end() || known->second != record) set_record(position_, key, record, true);
      if (clock::now() >= until) return false;
    }
    source.stored.clear();
  }
  return true;
}

void registration::finish_delivery() {
  if (inputs_read_ && !all_read_told_) {
    all_read_told_ = true;
    if (all_read_ != nullptr) all_read_(all_read_context_);
  }
  state_ = state::repairing;
  position_ = 0;
  planned_ = false;
  repair_wrote_ = false;
}

// Returns whether everything was compared.
bool registration::repair_some(clock::time_point until) {
  for (; position_ < outputs_.size(); ++position_, planned_ = false) {
    output_source &output = *outputs_[position_];
    if (!planned_) next_wanted_ = output.wanted.begin();
    planned_ = true;
    for (; next_wanted_ != output.wanted.end(); ++next_wanted_) {
      if (engine_->congested() || clock::now() >= until) return false;
      const auto &[key, record] = *next_wanted_;
      const auto stored = output.stored.find(std::string_view(key));
      if (stored != output.stored.end() && stored->second == record) {
        output.stored.erase(stored);
        continue;
      }
      repair_wrote_ = true;
      send({output.hash, change_kind::set, key, record});
      if (stored != output.stored.end()) output.stored.erase(stored);
    }
    while (!output.stored.empty()) {  // left over
      if (engine_->congested() || clock::now() >= until) return false;
      const auto stored = output.stored.begin();
      repair_wrote_ = true;
      send({output.hash, change_kind::del, stored->first, {}});
      output.stored.erase(stored);
    }
  }
  return true;
}

void registration::finish_repair() {
  state_ = state::live;
  std::vector<loose_write> loose;
  loose.swap(loose_);
  loose_seen_.clear();
  for (const loose_write &what : loose) send({what.hash, what.kind, what.key, what.record});
  if (refusal_told_.empty()) return;
  if (repair_wrote_ || !loose.empty()) {
    repair_later();  // until a comparison finds nothing to write, a refusal may still be on its way
    return;
  }
  PLATFORM_WARN("the store takes everything again");
  refusal_told_.clear();
  repair_pause_ms_ = 0;
}

// Returns whether nothing waits any more.
bool registration::drain_some(clock::time_point until) {
  while (!waiting_.empty()) {
    if (state_ != state::live) return true;
    const waiting_change next = std::move(waiting_.front());
    waiting_.pop_front();
    apply(next.input, {next.kind, next.key, next.record});
    if (clock::now() >= until) return waiting_.empty();
  }
  return true;
}

// ---- events ----

void registration::apply(size_t input, const announcement &what) {
  if (what.kind == change_kind::set)
    set_record(input, what.key, what.record, false);
  else
    delete_record(input, what.key);
}

// `stored`: the record was read from the store; else it was announced, and the store may know better.
void registration::set_record(size_t input, std::string_view key, std::string_view record, bool stored) {
  input_source &source = *inputs_[input];
  const ProtobufCMessage *message = decode(source, record);
  const defect why = check_record(message, key);
  if (why == defect::none) {
    assign(source.copy, key, record);
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
  const auto known = source.copy.find(key);
  if (known == source.copy.end()) return;
  const ProtobufCMessage *message = decode(source, known->second);
  if (message == nullptr) throw std::bad_alloc();  // it decoded when it came
  source.copy.erase(known);
  hand_over(source, VX_MOM_EVENT_DEL, *message);
}

void registration::hand_over(input_source &source, uint32_t kind, const ProtobufCMessage &message) {
  const event_handler &handler = source.on[kind];
  if (handler.call == nullptr) return;
  ++counters_.events;
  const int32_t status = handler.call(handler.context, kind, &message);
  if (status == 0) return;
  ++counters_.handler_failures;
  PLATFORM_WARN("the handler of the %s event of %s %s answered with status %d",
                kind == VX_MOM_EVENT_SET ? "set" : "delete", name_of(source.hash).c_str(), to_text(message).c_str(),
                status);
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
  std::string mark = name_of(hash).append(1, '\0').append(key);
  if (!told_.insert(std::move(mark)).second) return;
  PLATFORM_ERROR("a record of %s is passed over: %s, key %s", name_of(hash).c_str(), why, to_hex(key).c_str());
  if (told_.size() == told_limit) PLATFORM_ERROR("further records that are passed over are only counted");
}

}  // namespace ko_store
