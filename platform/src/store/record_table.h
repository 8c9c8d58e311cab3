// Packed records by packed key: a hash table in which every record is one piece of memory. A record begins with its key
// in most cases, and is stored once then.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory_resource>
#include <string_view>
#include <vector>

namespace ko_store {

class record_table {
 public:
  // One record. Its texts stay where they are until the record is replaced or erased.
  class entry {
   public:
    std::string_view key() const { return {bytes() + (key_is_inside_ ? key_start : record_size_), key_size_}; }
    std::string_view record() const { return {bytes(), record_size_}; }

    // A number of the user's own, of which 24 bits count; a put makes it 0.
    bool has_mark(uint32_t mark) const { return mark_ == (mark & mark_bits); }
    void set_mark(uint32_t mark) { mark_ = mark & mark_bits; }

   private:
    friend class record_table;
    static constexpr size_t key_start = 2;  // behind the key field's tag and length, a byte each
    static constexpr uint32_t mark_bits = (1U << 24) - 1, most_key_size = (1U << 31) - 1;
    const char *bytes() const { return reinterpret_cast<const char *>(this + 1); }
    char *bytes() { return reinterpret_cast<char *>(this + 1); }

    void fill(std::string_view key, std::string_view record, size_t room);
    size_t room() const;
    static size_t room_for(std::string_view key, std::string_view record);

    entry *next_;  // in the bucket
    uint32_t hash_value_;
    uint32_t record_size_;
    uint32_t key_size_ : 31;
    uint32_t key_is_inside_ : 1;  // else it follows the record
    uint32_t mark_ : 24;
    uint32_t spare_ : 8;  // bytes that follow record and key and belong to the piece
  };

  // `memory` (borrowed) gives and takes the records' pieces; what is erased is used again.
  explicit record_table(std::pmr::memory_resource *memory) : memory_(memory), buckets_(1) {}
  record_table(const record_table &) = delete;
  record_table &operator=(const record_table &) = delete;
  ~record_table() { clear(); }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const entry *find(std::string_view key) const { return *place_of(key, hash_value_of(key)); }
  entry *find(std::string_view key) { return *place_of(key, hash_value_of(key)); }
  bool contains(std::string_view key) const { return find(key) != nullptr; }

  // Adds or replaces a record, which must not lie in this table. Throws bad_alloc and leaves all as it was.
  void put(std::string_view key, std::string_view record);
  // Erases the record, if there is one. `key` may lie in it.
  void erase(std::string_view key);
  void clear();
  // Makes room for as many records, so that puts up to there take the same time each.
  void reserve(size_t n);

  // The records are walked bucket by bucket, `i` < n_buckets(); a put or clear may move them to others.
  size_t n_buckets() const { return buckets_.size(); }
  template <class Visit>
  void visit_bucket(size_t i, Visit visit) const {
    for (const entry *at = buckets_[i]; at != nullptr; at = at->next_) visit(*at);
  }

 private:
  static uint32_t hash_value_of(std::string_view key) {
    return static_cast<uint32_t>(std::hash<std::string_view>{}(key));
  }
  // The link to the record, or the one that ends its bucket.
  entry *const *place_of(std::string_view key, uint32_t hash_value) const;
  entry **place_of(std::string_view key, uint32_t hash_value);
  entry *make(std::string_view key, std::string_view record, uint32_t hash_value);
  void destroy(entry *gone);

  std::pmr::memory_resource *memory_;
  std::vector<entry *> buckets_;  // a power of two
  size_t size_ = 0;
};

}  // namespace ko_store
