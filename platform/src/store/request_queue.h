// Requests to a server, in their order, from when they are made until they are answered. They lie in two pieces of
// memory that grow as needed: once they have grown, a request costs no allocation.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "store/change.h"

namespace ko_store {

enum class request_kind : uint8_t { page, fetch, write, publish, ping };

struct request {
  request_kind kind{};
  change_kind change{};   // of a write
  uint32_t commands = 0;  // in which it was sent
  hash_id hash{};
  size_t number = 0;  // of the hash, of a page or a fetch
  uint32_t scan = 0;  // number of the scan, of a page
};

class request_queue {
 public:
  size_t size() const { return entries_.size() - first_; }
  bool empty() const { return size() == 0; }
  size_t writes() const { return writes_; }                    // of the requests
  size_t bytes() const { return text_.size() - first_text_; }  // of all keys and records

  // Adds a request with a key (of a page: a cursor, of a publish: a channel) and a record, which are copied. Throws
  // bad_alloc and leaves all as it was.
  void push(const request &added, std::string_view key, std::string_view record = {});
  // Drops the oldest.
  void pop();
  void clear();

  // The `i`-th request from the oldest; the texts are borrowed until the next push, pop or clear.
  request &at(size_t i) { return entries_[first_ + i].what; }
  const request &at(size_t i) const { return entries_[first_ + i].what; }
  std::string_view key(size_t i) const;
  change change_at(size_t i) const;  // of a write

 private:
  struct entry {
    request what;
    size_t start;  // of its key in text_; the record follows
    size_t key_size;
    size_t record_size;
  };

  void compact();

  std::vector<entry> entries_;
  std::string text_;
  size_t first_ = 0;       // the oldest of entries_
  size_t first_text_ = 0;  // where its key begins
  size_t writes_ = 0;
};

}  // namespace ko_store
