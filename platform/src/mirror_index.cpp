// Two chained hash tables of nodes, and the chains of those that wait.
#include "mirror_index.h"

#include <cstdlib>

namespace mirror_index {
namespace {

uint64_t mix(uint64_t hash, uint64_t value) {
  hash = (hash ^ value) * 0x9e3779b97f4a7c15U;
  return hash ^ hash >> 32;
}

// Entries that were allocated one after the other get neighbouring buckets.
uint64_t address_hash(const mirror_link *entry) { return reinterpret_cast<uintptr_t>(entry) / 64; }

// Where it cannot grow for want of memory it gets slower, and nothing else.
class node_table {
 public:
  explicit constexpr node_table(table_kind kind) : kind_(kind) {}

  node *bucket(uint64_t hash) const { return buckets_[hash & mask_]; }

  // At least half of the buckets stay empty, so that most searches without a result look at no node.
  void insert(node *added) {
    if (2 * ++used_ > mask_) grow();
    push(buckets_, mask_, added);
  }

  void remove(const node *gone) {
    node **at = &buckets_[hash(gone) & mask_];
    while (*at != gone) at = &(*at)->next[kind_];
    *at = gone->next[kind_];
    --used_;
  }

 private:
  uint64_t hash(const node *of) const { return kind_ == by_key ? of->key_hash : address_hash(of->entry); }

  void push(node **buckets, size_t mask, node *added) const {
    node **bucket = &buckets[hash(added) & mask];
    added->next[kind_] = *bucket;
    *bucket = added;
  }

  void grow() {
    const size_t size = 2 * (mask_ + 1);
    auto **larger = static_cast<node **>(std::calloc(size, sizeof(void *)));
    if (larger == nullptr) return;
    for (size_t i = 0; i <= mask_; ++i)
      for (node *at = buckets_[i], *following = nullptr; at != nullptr; at = following) {
        following = at->next[kind_];
        push(larger, size - 1, at);
      }
    if (buckets_ != initial_) std::free(buckets_);
    buckets_ = larger;
    mask_ = size - 1;
  }

  table_kind kind_;
  node *initial_[64] = {};
  node **buckets_ = initial_;
  size_t mask_ = 63;
  size_t used_ = 0;
};

node_table keys(by_key);
node_table addresses(by_address);
node *waiting[n_kinds];

void begin_waiting(node *added, node *&chain) {
  added->waits = true;
  added->waits_at = &chain;
  added->next[by_key] = chain;
  if (chain != nullptr) chain->waits_at = &added->next[by_key];
  chain = added;
}

void end_waiting(node *gone) {
  node *following = gone->next[by_key];
  *gone->waits_at = following;
  if (following != nullptr) following->waits_at = gone->waits_at;
  gone->waits = false;
}

// The first node of the chain with this hash.
node *from(node *at, uint64_t hash) {
  while (at != nullptr && at->key_hash != hash) at = at->next[by_key];
  return at;
}

}  // namespace

uint64_t hash_of(const mirror_link *list, std::initializer_list<uint32_t> fields) {
  uint64_t hash = mix(0, reinterpret_cast<uintptr_t>(list));
  for (const uint32_t field : fields) hash = mix(hash, field);
  return hash;
}

void add(node *added, kind of, mirror_link *list, mirror_link *entry) {
  added->list = list;
  added->entry = entry;
  addresses.insert(added);
  begin_waiting(added, waiting[of]);
}

void remove(const mirror_link *entry) {
  node *at = addresses.bucket(address_hash(entry));
  while (at != nullptr && at->entry != entry) at = at->next[by_address];
  if (at == nullptr) return;
  addresses.remove(at);
  if (at->waits)
    end_waiting(at);
  else
    keys.remove(at);
}

node *first(kind of, uint64_t hash, uint64_t (*hash_of_entry)(const node &waiting)) {
  while (node *filed = waiting[of]) {
    end_waiting(filed);
    filed->key_hash = hash_of_entry(*filed);
    keys.insert(filed);
  }
  return from(keys.bucket(hash), hash);
}

node *next(const node *at) { return from(at->next[by_key], at->key_hash); }

}  // namespace mirror_index
