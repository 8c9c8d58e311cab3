#include "store/record_table.h"

#include <bit>
#include <cstring>
#include <new>
#include <utility>

namespace ko_store {
namespace {

constexpr size_t most_size = size_t{1} << 31;  // bytes of one record

bool begins_with(std::string_view record, std::string_view key, size_t start) {
  return record.size() >= start && record.substr(start).starts_with(key);
}

// Four of five at most are in use.
size_t entries_for(size_t n_records) { return std::bit_ceil(n_records + n_records / 4 + 1); }

}  // namespace

size_t record_table::place_of(std::string_view key, uint32_t hash_value) const {
  size_t i = hash_value & mask();
  for (; entries_[i].at_ != nullptr; i = (i + 1) & mask())
    if (entries_[i].hash_value_ == hash_value && entries_[i].key() == key) break;
  return i;
}

// Bytes of the piece, rounded so that a record that changes a little keeps it.
size_t record_table::size_for(std::string_view key, std::string_view record) {
  const size_t size = sizeof(piece) + record.size() + (begins_with(record, key, key_start) ? 0 : key.size());
  return (size + sizeof(piece) - 1) / sizeof(piece) * sizeof(piece);
}

void record_table::fill(piece &into, std::string_view key, std::string_view record) {
  into.record_size = static_cast<uint32_t>(record.size());
  into.key_size = static_cast<uint32_t>(key.size()) & (most_size - 1);
  into.key_is_inside = begins_with(record, key, key_start) ? 1 : 0;
  if (!into.key_is_inside) std::memcpy(into.bytes() + record.size(), key.data(), key.size());
  std::memcpy(into.bytes(), record.data(), record.size());
}

record_table::piece *record_table::make(std::string_view key, std::string_view record) {
  const size_t size = size_for(key, record);
  if (size > most_size) throw std::bad_alloc();
  auto *made = new (memory_->allocate(size, alignof(piece))) piece;
  fill(*made, key, record);
  return made;
}

void record_table::destroy(const entry &gone) {
  memory_->deallocate(gone.at_, size_for(gone.key(), gone.record()), alignof(piece));
}

void record_table::put(std::string_view key, std::string_view record) {
  const uint32_t hash_value = hash_value_of(key);
  entry *known = &entries_[place_of(key, hash_value)];
  if (known->at_ == nullptr && entries_for(size_ + 1) > entries_.size()) {
    reserve(size_ + 1);
    known = &entries_[place_of(key, hash_value)];
  }
  if (known->at_ == nullptr) {
    known->at_ = make(key, record);
    ++size_;
  } else if (size_for(key, record) == size_for(known->key(), known->record())) {
    fill(*known->at_, key, record);
  } else {
    piece *made = make(key, record);
    destroy(*known);
    known->at_ = made;
  }
  known->hash_value_ = hash_value;
  known->mark_ = 0;
}

// What stands behind it, up to the next empty entry, moves towards where it would be found first.
void record_table::erase(std::string_view key) {
  size_t hole = place_of(key, hash_value_of(key));
  if (entries_[hole].at_ == nullptr) return;
  destroy(entries_[hole]);
  for (size_t i = (hole + 1) & mask(); entries_[i].at_ != nullptr; i = (i + 1) & mask())
    if (((i - entries_[i].hash_value_) & mask()) >= ((i - hole) & mask()))
      entries_[std::exchange(hole, i)] = entries_[i];
  entries_[hole] = {};
  --size_;
}

void record_table::clear() {
  for (const entry &gone : entries_)
    if (gone.at_ != nullptr) destroy(gone);
  size_ = 0;
  entries_.assign(1, {});
  entries_.shrink_to_fit();
}

void record_table::reserve(size_t n) {
  if (entries_for(n) <= entries_.size()) return;
  std::vector<entry> larger(entries_for(n));
  larger.swap(entries_);
  for (const entry &moved : larger) {
    if (moved.at_ == nullptr) continue;
    size_t i = moved.hash_value_ & mask();
    while (entries_[i].at_ != nullptr) i = (i + 1) & mask();
    entries_[i] = moved;
  }
}

}  // namespace ko_store
