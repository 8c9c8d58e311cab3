#include "store/record_table.h"

#include <bit>
#include <cstring>
#include <new>
#include <utility>

namespace ko_store {
namespace {

constexpr size_t most_room = size_t{1} << 31;  // bytes of one record
constexpr size_t key_start = 2;                // behind the key field's tag and length, a byte each

bool begins_with(std::string_view record, std::string_view key) {
  return record.size() >= key_start && record.substr(key_start).starts_with(key);
}

size_t room_for(std::string_view key, std::string_view record) {
  return record.size() + (begins_with(record, key) ? 0 : key.size());
}

}  // namespace

record_table::entry *const *record_table::place_of(std::string_view key, uint32_t hash) const {
  entry *const *at = &buckets_[hash & (buckets_.size() - 1)];
  while (*at != nullptr && ((*at)->hash_ != hash || (*at)->key() != key)) at = &(*at)->next_;
  return at;
}

record_table::entry **record_table::place_of(std::string_view key, uint32_t hash) {
  return const_cast<entry **>(std::as_const(*this).place_of(key, hash));
}

void record_table::entry::fill(std::string_view key, std::string_view record) {
  record_size_ = static_cast<uint32_t>(record.size());
  key_start_ = static_cast<uint32_t>(begins_with(record, key) ? key_start : record.size());
  key_size_ = static_cast<uint32_t>(key.size());
  mark_ = 0;
  std::memcpy(bytes() + key_start_, key.data(), key.size());
  std::memcpy(bytes(), record.data(), record.size());
}

record_table::entry *record_table::make(std::string_view key, std::string_view record, uint32_t hash) {
  const size_t room = room_for(key, record);
  if (room > most_room) throw std::bad_alloc();
  auto *made = new (memory_->allocate(sizeof(entry) + room, alignof(entry))) entry;
  made->hash_ = hash;
  made->room_ = static_cast<uint32_t>(room);
  made->fill(key, record);
  return made;
}

void record_table::destroy(entry *gone) { memory_->deallocate(gone, sizeof(entry) + gone->room_, alignof(entry)); }

void record_table::put(std::string_view key, std::string_view record) {
  const uint32_t hash = hash_of(key);
  entry **place = place_of(key, hash);
  entry *known = *place;
  if (known != nullptr && room_for(key, record) <= known->room_) return known->fill(key, record);
  if (known == nullptr && 2 * size_ >= buckets_.size()) {
    reserve(size_ + 1);
    place = place_of(key, hash);
  }
  entry *made = make(key, record, hash);
  made->next_ = known == nullptr ? nullptr : known->next_;
  *place = made;
  if (known == nullptr)
    ++size_;
  else
    destroy(known);
}

void record_table::erase(std::string_view key) {
  entry **place = place_of(key, hash_of(key));
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

// Half of the buckets are empty: most searches for what is not there look at no record.
void record_table::reserve(size_t n) {
  const size_t n_buckets = std::bit_ceil(2 * n);
  if (n_buckets <= buckets_.size()) return;
  std::vector<entry *> larger(n_buckets);
  for (entry *bucket : buckets_)
    while (bucket != nullptr) {
      entry *&place = larger[bucket->hash_ & (larger.size() - 1)];
      entry *next = std::exchange(bucket->next_, place);
      place = std::exchange(bucket, next);
    }
  buckets_.swap(larger);
}

}  // namespace ko_store
