#include "store/record_table.h"

#include <bit>
#include <cstring>
#include <new>
#include <utility>

namespace ko_store {
namespace {

constexpr size_t most_room = size_t{1} << 31;  // bytes of one record
constexpr size_t most_spare = 255;

bool begins_with(std::string_view record, std::string_view key, size_t start) {
  return record.size() >= start && record.substr(start).starts_with(key);
}

}  // namespace

record_table::entry *const *record_table::place_of(std::string_view key, uint32_t hash_value) const {
  entry *const *at = &buckets_[hash_value & (buckets_.size() - 1)];
  while (*at != nullptr && ((*at)->hash_value_ != hash_value || (*at)->key() != key)) at = &(*at)->next_;
  return at;
}

record_table::entry **record_table::place_of(std::string_view key, uint32_t hash_value) {
  return const_cast<entry **>(std::as_const(*this).place_of(key, hash_value));
}

void record_table::entry::fill(std::string_view key, std::string_view record, size_t room) {
  record_size_ = static_cast<uint32_t>(record.size());
  key_size_ = static_cast<uint32_t>(key.size()) & most_key_size;
  key_is_inside_ = begins_with(record, key, key_start) ? 1 : 0;
  mark_ = 0;
  spare_ = static_cast<uint8_t>(room - room_for(key, record));
  if (!key_is_inside_) std::memcpy(bytes() + record.size(), key.data(), key.size());
  std::memcpy(bytes(), record.data(), record.size());
}

size_t record_table::entry::room_for(std::string_view key, std::string_view record) {
  return record.size() + (begins_with(record, key, key_start) ? 0 : key.size());
}

// Bytes that follow the entry.
size_t record_table::entry::room() const { return record_size_ + (key_is_inside_ ? 0 : key_size_) + spare_; }

record_table::entry *record_table::make(std::string_view key, std::string_view record, uint32_t hash_value) {
  const size_t room = entry::room_for(key, record);
  if (room > most_room || key.size() > most_room) throw std::bad_alloc();
  auto *made = new (memory_->allocate(sizeof(entry) + room, alignof(entry))) entry;
  made->hash_value_ = hash_value;
  made->fill(key, record, room);
  return made;
}

void record_table::destroy(entry *gone) { memory_->deallocate(gone, sizeof(entry) + gone->room(), alignof(entry)); }

void record_table::put(std::string_view key, std::string_view record) {
  const uint32_t hash_value = hash_value_of(key);
  entry **place = place_of(key, hash_value);
  entry *known = *place;
  const size_t room = known == nullptr ? 0 : known->room(), needed = entry::room_for(key, record);
  if (known != nullptr && needed <= room && room - needed <= most_spare) return known->fill(key, record, room);
  if (known == nullptr && size_ >= buckets_.size()) {
    reserve(size_ + 1);
    place = place_of(key, hash_value);
  }
  entry *made = make(key, record, hash_value);
  made->next_ = known == nullptr ? nullptr : known->next_;
  *place = made;
  if (known == nullptr)
    ++size_;
  else
    destroy(known);
}

void record_table::erase(std::string_view key) {
  entry **place = place_of(key, hash_value_of(key));
  if (*place == nullptr) return;
  destroy(std::exchange(*place, (*place)->next_));
  --size_;
}

void record_table::clear() {
  for (entry *&bucket : buckets_)
    while (bucket != nullptr) destroy(std::exchange(bucket, bucket->next_));
  size_ = 0;
  buckets_.assign(1, nullptr);
  buckets_.shrink_to_fit();
}

// A record a bucket at most, on average.
void record_table::reserve(size_t n) {
  const size_t n_buckets = std::bit_ceil(n);
  if (n_buckets <= buckets_.size()) return;
  std::vector<entry *> larger(n_buckets);
  for (entry *bucket : buckets_)
    while (bucket != nullptr) {
      entry *&place = larger[bucket->hash_value_ & (larger.size() - 1)];
      entry *next = std::exchange(bucket->next_, place);
      place = std::exchange(bucket, next);
    }
  buckets_.swap(larger);
}

}  // namespace ko_store
