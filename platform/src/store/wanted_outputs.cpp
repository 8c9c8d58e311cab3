#include "store/wanted_outputs.h"

#include <algorithm>

#include "store/layout.h"

namespace ko_store {
namespace {

constexpr size_t buckets_a_look = 16;  // of a table, between two questions whether to interrupt

}  // namespace

void wanted_outputs::declare(std::span<const declaration> outputs) {
  outputs_.clear();
  for (const declaration &made : outputs) outputs_.push_back(std::make_unique<output>(made, &pool_));
  own_records_ = false;
}

// Where a change goes; null when that is no declared output.
wanted_outputs::output *wanted_outputs::output_of(const change &what) const {
  if (what.kind == change_kind::publish) return nullptr;
  for (const auto &of : outputs_)
    if (of->hash == what.hash) return of.get();
  return nullptr;
}

bool wanted_outputs::is_compared(const output *of, change_kind kind) const {
  if (of == nullptr) return false;
  return kind == change_kind::set || (own_records_ && !of->owner.empty());
}

bool wanted_outputs::is_compared(const change &wanted) const { return is_compared(output_of(wanted), wanted.kind); }

bool wanted_outputs::note(const change &wanted) {
  output *of = output_of(wanted);
  if (of == nullptr) return false;
  of->matched = 0;
  if (wanted.kind == change_kind::set)
    of->wanted.put(wanted.key, wanted.record);
  else
    of->wanted.erase(wanted.key);
  next_bucket_ = 0;  // buckets may have moved; to look at them again costs nothing but time
  return is_compared(of, wanted.kind);
}

// ---- comparison and repair ----

void wanted_outputs::begin_comparison() {
  ++comparison_;
  wrote_ = false;
  for (const auto &of : outputs_) of->readable = true, of->matched = 0;
}

void wanted_outputs::compare(size_t i, std::span<const change> records, const sender &send) {
  output &of = *outputs_[i];
  of.wanted.find_each(records, [&](const change &stored, record_table::entry *wanted) {
    if (wanted != nullptr && wanted->record() == stored.record) {
      of.matched += wanted->has_mark(comparison_) ? 0 : 1;
      wanted->set_mark(comparison_);
    } else if (wanted == nullptr && is_own(of, stored.key)) {  // left over
      wrote_ = true;
      send({of.hash, change_kind::del, stored.key, {}});
    }
  });
}

bool wanted_outputs::is_own(const output &of, std::string_view key) {
  if (of.owner.empty()) return false;
  const auto *type = static_cast<const ProtobufCMessageDescriptor *>(key_field(*of.hash.type)->descriptor);
  const ProtobufCMessage *decoded = arena_.decode(*type, key);
  return decoded != nullptr && owner_of(*decoded) == of.owner;
}

void wanted_outputs::begin_repair() { position_ = next_bucket_ = 0; }

bool wanted_outputs::repair_some(const std::function<bool()> &interrupted, const sender &send) {
  for (; position_ < outputs_.size(); ++position_, next_bucket_ = 0)
    if (!repair_output(*outputs_[position_], interrupted, send)) return false;
  for (; !pending.empty(); pending.pop()) {
    if (interrupted()) return false;
    wrote_ = true;
    send(pending.first());
  }
  return true;
}

bool wanted_outputs::repair_output(const output &of, const std::function<bool()> &interrupted, const sender &send) {
  if (!of.readable || of.matched == of.wanted.size()) return true;
  for (; next_bucket_ < of.wanted.n_buckets(); ++next_bucket_) {
    if (next_bucket_ % buckets_a_look == 0 && interrupted()) return false;
    of.wanted.visit_bucket(next_bucket_, [&](const record_table::entry &wanted) {
      if (wanted.has_mark(comparison_)) return;
      wrote_ = true;
      send({of.hash, change_kind::set, wanted.key(), wanted.record()});
    });
  }
  return true;
}

bool wanted_outputs::is_right() const {
  return !wrote_ && std::all_of(outputs_.begin(), outputs_.end(), [](const auto &of) { return of->readable; });
}

}  // namespace ko_store
