// Writes that wait until they can be sent, in no particular order: of a key, or of a message that is published, only
// the last one.
#pragma once

#include <memory_resource>
#include <optional>
#include <string_view>
#include <unordered_set>

#include "store/change.h"
#include "store/pool.h"

namespace ko_store {

class pending_writes {
 public:
  bool empty() const { return !held_.has_value() || held_->writes.empty(); }
  // Copies it. Throws bad_alloc and leaves all as it was.
  void add(const change &what);
  // Forgets the one of the same key or message, if there is one.
  void drop(const change &what);
  // Forgets those that `is_gone` says true of.
  template <class Gone>
  void drop_if(Gone is_gone) {
    if (held_.has_value()) std::erase_if(held_->writes, is_gone);
  }

  // Only while not empty; borrowed until it is popped.
  change first() const { return *held_->writes.begin(); }
  void pop();

 private:
  struct hash {
    using is_transparent = void;
    size_t operator()(const change &what) const;
  };
  struct same {
    using is_transparent = void;
    bool operator()(const change &one, const change &other) const;
  };
  // A read of the store makes thousands of them among records that stay: their memory is given back as a whole.
  struct held {
    held() : writes(&memory) {}

    pool memory;
    std::pmr::unordered_set<owned_change, hash, same> writes;
  };

  std::optional<held> held_;
};

}  // namespace ko_store
