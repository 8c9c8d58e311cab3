// Packed records by packed key: a hash table by open addressing, in which every record is one piece of memory. A record
// begins with its key in most cases, and is stored once then.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory_resource>
#include <span>
#include <string_view>
#include <vector>

#include "store/change.h"

namespace ko_store {

class record_table {
 private:
  // The sizes, and behind them the record and, where it does not begin with its key, the key.
  struct piece {
    uint32_t record_size;
    uint32_t key_size : 31;
    uint32_t key_is_inside : 1;

    const char *bytes() const { return reinterpret_cast<const char *>(this + 1); }
    char *bytes() { return reinterpret_cast<char *>(this + 1); }
  };

 public:
  // One record. Its texts stay where they are until it is replaced or erased, the entry itself until a record is added
  // or erased.
  class entry {
   public:
    std::string_view key() const {
      return {at_->bytes() + (at_->key_is_inside ? key_start : at_->record_size), at_->key_size};
    }
    std::string_view record() const { return {at_->bytes(), at_->record_size}; }

    // A number of the user's own; a put makes it 0.
    bool has_mark(uint32_t mark) const { return mark_ == mark; }
    void set_mark(uint32_t mark) { mark_ = mark; }

   private:
    friend class record_table;
    piece *at_ = nullptr;  // owned by the table; null: no record
    uint32_t hash_value_ = 0;
    uint32_t mark_ = 0;
  };

  // `memory` (borrowed) gives and takes the records' pieces; what is erased is used again.
  explicit record_table(std::pmr::memory_resource *memory) : memory_(memory), entries_(1) {}
  record_table(const record_table &) = delete;
  record_table &operator=(const record_table &) = delete;
  ~record_table() { clear(); }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const entry *find(std::string_view key) const { return found(entries_[place_of(key, hash_value_of(key))]); }
  entry *find(std::string_view key) { return found(entries_[place_of(key, hash_value_of(key))]); }
  bool contains(std::string_view key) const { return find(key) != nullptr; }

  // Calls take(change, entry or null) for each of `changes` with the record of its key. What the next ones need is on
  // its way from memory meanwhile. `take` must not change the table.
  template <class Take>
  void find_each(std::span<const change> changes, Take take);

  // Adds or replaces a record, which must not lie in this table. Throws bad_alloc and leaves all as it was.
  void put(std::string_view key, std::string_view record);
  // Erases the record, if there is one. `key` may lie in it.
  void erase(std::string_view key);
  void clear();
  // Makes room for as many records, so that puts up to there take the same time each.
  void reserve(size_t n);

  // The records are walked bucket by bucket, `i` < n_buckets(); what changes the table may move them to others.
  size_t n_buckets() const { return entries_.size(); }
  template <class Visit>
  void visit_bucket(size_t i, Visit visit) const {
    if (entries_[i].at_ != nullptr) visit(entries_[i]);
  }

 private:
  static constexpr size_t key_start = 2;  // behind the key field's tag and length, a byte each

  static uint32_t hash_value_of(std::string_view key) {
    return static_cast<uint32_t>(std::hash<std::string_view>{}(key));
  }
  static const entry *found(const entry &at) { return at.at_ == nullptr ? nullptr : &at; }
  static entry *found(entry &at) { return at.at_ == nullptr ? nullptr : &at; }
  static size_t size_for(std::string_view key, std::string_view record);
  static void fill(piece &into, std::string_view key, std::string_view record);

  size_t mask() const { return entries_.size() - 1; }
  // Where the record is, or would be put.
  size_t place_of(std::string_view key, uint32_t hash_value) const;
  piece *make(std::string_view key, std::string_view record);
  void destroy(const entry &gone);

  std::pmr::memory_resource *memory_;
  std::vector<entry> entries_;  // a power of two; some are empty
  size_t size_ = 0;
};

template <class Take>
void record_table::find_each(std::span<const change> changes, Take take) {
  constexpr size_t at_once = 16;
  std::array<uint32_t, at_once> hash_values;
  for (; !changes.empty(); changes = changes.subspan(std::min(at_once, changes.size()))) {
    const size_t n = std::min(at_once, changes.size());
    for (size_t i = 0; i < n; ++i) {
      hash_values[i] = hash_value_of(changes[i].key);
      __builtin_prefetch(&entries_[hash_values[i] & mask()]);
    }
    for (size_t i = 0; i < n; ++i) __builtin_prefetch(entries_[hash_values[i] & mask()].at_);
    for (size_t i = 0; i < n; ++i) take(changes[i], found(entries_[place_of(changes[i].key, hash_values[i])]));
  }
}

}  // namespace ko_store
