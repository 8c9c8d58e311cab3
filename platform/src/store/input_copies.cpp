#include "store/input_copies.h"

#include <new>

#include "platform_log.h"
#include "store/layout.h"
#include "store/record_text.h"

namespace ko_store {
namespace {

using clock = std::chrono::steady_clock;

constexpr size_t buckets_a_look = 16;                                // of a table, between two looks at the clock
constexpr size_t most_reported = 10'000;                             // distinct bad records that are logged
constexpr const char *event_names[] = {"set", "delete", "publish"};  // by VX_MOM_EVENT_...

}  // namespace

input_copies::source::source(const hash_id &id, std::pmr::memory_resource *memory)
    : hash(id), has_records(key_field(*id.type) != nullptr), copy(memory) {}

void input_copies::declare(std::span<const hash_id> hashes) {
  sources_.clear();
  for (const hash_id &hash : hashes) sources_.push_back(std::make_unique<source>(hash, &pool_));
}

std::optional<size_t> input_copies::find(const hash_id &hash) const {
  for (size_t i = 0; i < sources_.size(); ++i)
    if (sources_[i]->hash == hash) return i;
  return std::nullopt;
}

// ---- a read ----

void input_copies::begin_read() {
  ++read_;
  for (const auto &of : sources_) {
    of->read.clear();
    of->decided_anew.merge(of->doubtful);
  }
}

// A record that equals its copy need not be kept, but for one that comes twice: the later one counts.
void input_copies::add_read(size_t i, std::span<const change> records) {
  source &of = *sources_[i];
  std::vector<change> different;
  of.copy.find_each(records, [&](const change &record, record_table::entry *known) {
    const bool is_same = known != nullptr && !known->has_mark(read_) && known->record() == record.record;
    if (known != nullptr) known->set_mark(read_);
    if (!is_same || of.decided_anew.contains(record.key)) different.push_back(record);
  });
  of.read.add(different);
}

void input_copies::begin_delivery() {
  position_ = 0;
  step_ = step::begin;
}

bool input_copies::deliver_some(deadline until) {
  for (; position_ < sources_.size(); ++position_, step_ = step::begin) {
    source &of = *sources_[position_];
    if (step_ == step::begin) {
      deletes_.clear();
      of.copy.reserve(of.copy.size() + of.read.size());
      next_bucket_ = 0;
      step_ = step::find_deletes;
    }
    if (step_ == step::find_deletes && !find_deletes(of, until)) return false;
    step_ = step::carry_out;
    if (!deliver_deletes(until) || !deliver_sets(until)) return false;
    of.decided_anew.clear();
  }
  return true;
}

// Finds the records that are gone. Deletes are delivered before sets, so that a member that changed its target leaves
// the old one first.
bool input_copies::find_deletes(source &of, deadline until) {
  for (; next_bucket_ < of.copy.n_buckets(); ++next_bucket_) {
    if (next_bucket_ % buckets_a_look == 0 && clock::now() >= until) return false;
    of.copy.visit_bucket(next_bucket_, [&](const record_table::entry &known) {
      if (!known.has_mark(read_)) deletes_.emplace(known.key());
    });
  }
  return true;
}

bool input_copies::deliver_deletes(deadline until) {
  while (!deletes_.empty()) {
    const std::string key = std::move(deletes_.extract(deletes_.begin()).value());
    delete_record(position_, key);
    if (clock::now() >= until) return false;
  }
  return true;
}

bool input_copies::deliver_sets(deadline until) {
  source &of = *sources_[position_];
  for (; !of.read.empty(); of.read.pop()) {
    if (clock::now() >= until) return false;
    const std::string_view key = of.read.key(), record = of.read.record();
    const record_table::entry *known = of.copy.find(key);
    if (known == nullptr || known->record() != record || of.decided_anew.contains(key))
      set_record(position_, key, record, true);
  }
  return true;
}

// ---- events ----

bool input_copies::apply(size_t i, const change &what, bool is_stored) {
  if (what.kind == change_kind::del) {
    delete_record(i, what.key);
    return true;
  }
  const record_table::entry *known = is_stored ? sources_[i]->copy.find(what.key) : nullptr;
  return (known != nullptr && known->record() == what.record) || set_record(i, what.key, what.record, is_stored);
}

void input_copies::apply_published(size_t i, std::string_view message) {
  source &of = *sources_[i];
  if (of.on[VX_MOM_EVENT_PUBLISH].call == nullptr) return;
  const ProtobufCMessage *decoded = arena_.decode(*of.hash.type, message);
  if (decoded == nullptr) return reject(i, {}, to_string(defect::undecodable));
  hand_over(of, VX_MOM_EVENT_PUBLISH, *decoded);
}

// Returns false when the record has to be read: the announced one cannot be used, and another one is known.
bool input_copies::set_record(size_t i, std::string_view key, std::string_view record, bool is_stored) {
  source &of = *sources_[i];
  const ProtobufCMessage *message = arena_.decode(*of.hash.type, record);
  const defect why = check_record(message, key);
  if (why == defect::none) {
    of.copy.put(key, record);
    hand_over(of, VX_MOM_EVENT_SET, *message);
    return true;
  }
  reject(i, key, to_string(why));
  if (is_stored) delete_record(i, key);
  return is_stored || !of.copy.contains(key);
}

void input_copies::delete_record(size_t i, std::string_view key) {
  source &of = *sources_[i];
  const record_table::entry *known = of.copy.find(key);
  if (known == nullptr) return;
  const ProtobufCMessage *message = arena_.decode(*of.hash.type, known->record());  // it decoded when it came
  of.copy.erase(key);
  hand_over(of, VX_MOM_EVENT_DEL, *message);
}

void input_copies::hand_over(source &of, uint32_t kind, const ProtobufCMessage &message) {
  const event_handler &handler = of.on[kind];
  if (handler.call == nullptr) return;
  ++counters_.events;
  const int32_t status = handler.call(handler.context, kind == VX_MOM_EVENT_DEL ? 1 : 0, &message);
  if (observer_) observer_(kind, message, status);
  if (status == 0) return;
  ++counters_.handler_failures;
  PLATFORM_WARN("the handler of the %s event of %s %s answered with status %d", event_names[kind],
                channel_name(of.hash).c_str(), to_text(message).c_str(), status);
}

void input_copies::reject(size_t i, std::string_view key, const char *why) {
  ++counters_.rejected;
  if (rejected_.size() >= most_reported) return;
  const std::string source_name = channel_name(sources_[i]->hash);
  if (!rejected_.insert(std::hash<std::string>{}(std::string(source_name).append(1, '\0').append(key))).second) return;
  PLATFORM_ERROR("a record of %s is passed over: %s, key %s", source_name.c_str(), why, to_hex(key).c_str());
  if (rejected_.size() == most_reported) PLATFORM_ERROR("further records that are passed over are only counted");
}

}  // namespace ko_store
