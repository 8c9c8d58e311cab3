// Records as they are read from the store: taken page by page in any order, handed out in the order of their keys. Each
// page is sorted when it comes, and the pages are merged as they are handed out, so that no step takes long.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "store/change.h"

namespace ko_store {

class read_buffer {
 public:
  // Copies the records. Of those with the same key, the one that was added last counts. Throws bad_alloc.
  void add(std::span<const change> records);
  void clear() { pages_.clear(); }

  bool empty() const { return pages_.empty(); }
  size_t size() const;  // records, at most
  // The first in the order of the keys; borrowed until it is popped. Only while not empty.
  std::string_view key() const { return pages_.front().front().key; }
  std::string_view record() const { return pages_.front().front().record; }
  void pop();

 private:
  struct item {
    std::string_view key;
    std::string_view record;
  };
  struct page {
    size_t number;  // in the order of arrival
    size_t next = 0;
    std::vector<item> items;
    std::unique_ptr<char[]> bytes;

    const item &front() const { return items[next]; }
  };

  static bool is_later(const page &a, const page &b);
  void pop_one();

  size_t added_ = 0;
  std::string popped_;       // the last key
  std::vector<page> pages_;  // none is at its end; a heap by is_later
};

}  // namespace ko_store
