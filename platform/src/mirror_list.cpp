// Mirror lists: entries from the standard allocator, which the caller frees, behind an index that makes every call take
// the same time however long the lists are.
//
// Each entry's allocation has room behind the entry for a node of the index, so that entry and node come and go
// together. A node stands in two hash tables: by list and searched fields, for searches, and by the entry's address,
// for its removal. The fields are the caller's to fill after the entry was added, and short lists are searched without
// the index: a node waits until there is a search in a long list of its kind.
#include "mirror_list.h"

#include <cstdlib>
#include <initializer_list>

#include "idl_trans.h"

namespace {

enum table_kind { by_key, by_address, n_tables };

struct node {
  node *next[n_tables];  // in the bucket; in by_key also the next that waits
  union {
    uint64_t key_hash;
    node **waits_at;  // the pointer that leads to a waiting node
  };
  mirror_link *list;
  mirror_link *entry;
  bool waits;  // not in by_key yet
};

template <typename Entry>
struct allocation {
  Entry entry;
  node index;
};

uint64_t mix(uint64_t hash, uint64_t value) {
  hash = (hash ^ value) * 0x9e3779b97f4a7c15U;
  return hash ^ hash >> 32;
}

uint64_t hash_of(const mirror_link *place, std::initializer_list<uint32_t> words) {
  uint64_t hash = mix(0, reinterpret_cast<uintptr_t>(place));
  for (const uint32_t word : words) hash = mix(hash, word);
  return hash;
}

uint64_t hash_of(const mirror_link *list, const mirror_info &entry) { return hash_of(list, {entry.session_id}); }

uint64_t hash_of(const mirror_link *list, const src_info &entry) {
  return hash_of(list, {entry.dir, entry.s_phyid, entry.acl_id});
}

uint64_t hash_of(const mirror_link *list, const dst_info &entry) {
  return hash_of(list, {entry.dir, entry.s_phyid, entry.d_phyid, entry.acl_id});
}

uint64_t hash_of(const mirror_link *list, const mtp_info &entry) { return hash_of(list, {entry.session_id}); }

// What was allocated together lies together here, too.
uint64_t address_hash(const mirror_link *entry) { return reinterpret_cast<uintptr_t>(entry) / 64; }

uint64_t hash_of(const node *of, table_kind kind) { return kind == by_key ? of->key_hash : address_hash(of->entry); }

// Chained hash table of nodes. Where it cannot grow for want of memory it gets slower, and nothing else.
class node_table {
 public:
  explicit constexpr node_table(table_kind kind) : kind_(kind) {}

  node *first(uint64_t hash) const { return buckets_[hash & mask_]; }

  // Half of the buckets are empty: most searches for what is not there look at no node.
  void insert(node *added) {
    if (2 * ++used_ > mask_) grow();
    push(buckets_, mask_, added);
  }

  void remove(const node *gone) {
    node **at = &buckets_[hash_of(gone, kind_) & mask_];
    while (*at != gone) at = &(*at)->next[kind_];
    *at = gone->next[kind_];
    --used_;
  }

 private:
  void push(node **buckets, size_t mask, node *added) const {
    node **bucket = &buckets[hash_of(added, kind_) & mask];
    added->next[kind_] = *bucket;
    *bucket = added;
  }

  void grow() {
    const size_t size = 2 * (mask_ + 1);
    auto **larger = static_cast<node **>(std::calloc(size, sizeof(void *)));
    if (larger == nullptr) return;
    for (size_t i = 0; i <= mask_; ++i)
      for (node *at = buckets_[i], *next = nullptr; at != nullptr; at = next) {
        next = at->next[kind_];
        push(larger, size - 1, at);
      }
    if (buckets_ != few_) std::free(buckets_);
    buckets_ = larger;
    mask_ = size - 1;
  }

  table_kind kind_;
  node *few_[64] = {};
  node **buckets_ = few_;
  size_t mask_ = 63;
  size_t used_ = 0;
};

node_table keys(by_key);
node_table addresses(by_address);
template <typename Entry>
node *waiting = nullptr;

constexpr size_t few = 4;  // entries that a search looks at before it asks the index

void make_empty(mirror_link &head) { head.next = head.prev = &head; }

void await(node *added, node *&first) {
  added->waits = true;
  added->waits_at = &first;
  added->next[by_key] = first;
  if (first != nullptr) first->waits_at = &added->next[by_key];
  first = added;
}

void leave_waiting(node *gone) {
  node *next = gone->next[by_key];
  *gone->waits_at = next;
  if (next != nullptr) next->waits_at = gone->waits_at;
  gone->waits = false;
}

template <typename Entry>
Entry *add(mirror_link *list) {
  auto *made = static_cast<allocation<Entry> *>(std::calloc(1, sizeof(allocation<Entry>)));
  if (made == nullptr) return nullptr;
  mirror_link *link = &made->entry.link;
  *link = {list, list->prev};
  list->prev->next = link;
  list->prev = link;

  node *index = &made->index;
  index->list = list;
  index->entry = link;
  addresses.insert(index);
  await(index, waiting<Entry>);
  return &made->entry;
}

// By now the callers have filled what they added.
template <typename Entry>
void file_waiting() {
  while (waiting<Entry> != nullptr) {
    node *filed = waiting<Entry>;
    leave_waiting(filed);
    filed->key_hash = hash_of(filed->list, *reinterpret_cast<const Entry *>(filed->entry));
    keys.insert(filed);
  }
}

// Most sessions have a handful of members: where the list ends soon, walking it is all there is to do.
template <typename Entry, typename Test>
Entry *search(mirror_link *list, uint64_t hash, Test test) {
  mirror_link *next = list->next;
  for (size_t i = 0; i < few && next != list; ++i, next = next->next)
    if (auto *entry = reinterpret_cast<Entry *>(next); test(*entry)) return entry;
  if (next == list) return nullptr;
  file_waiting<Entry>();
  for (node *at = keys.first(hash); at != nullptr; at = at->next[by_key]) {
    if (at->key_hash != hash || at->list != list) continue;
    auto *entry = reinterpret_cast<Entry *>(at->entry);
    if (test(*entry)) return entry;
  }
  return nullptr;
}

void forget(node *gone) {
  addresses.remove(gone);
  if (gone->waits)
    leave_waiting(gone);
  else
    keys.remove(gone);
}

}  // namespace

mirror_info *mirror_list_add_session_info(mirror_link *session_list) {
  auto *session = add<mirror_info>(session_list);
  if (session == nullptr) return nullptr;
  make_empty(session->src_list);
  make_empty(session->dst_list);
  make_empty(session->mtp_list);
  return session;
}

src_info *mirror_list_add_src_info(mirror_link *src_list) { return add<src_info>(src_list); }

dst_info *mirror_list_add_dst_info(mirror_link *dst_list) { return add<dst_info>(dst_list); }

mtp_info *mirror_list_add_mtp_info(mirror_link *mtp_list) { return add<mtp_info>(mtp_list); }

mirror_info *mirror_list_search_session_info(mirror_link *session_list, uint32_t session_id) {
  return search<mirror_info>(session_list, hash_of(session_list, {session_id}),
                             [=](const mirror_info &entry) { return entry.session_id == session_id; });
}

src_info *mirror_list_search_src_info(mirror_link *src_list, uint32_t dir, uint32_t s_phyid, uint32_t acl_id) {
  const uint32_t local_dir = idl_dir_trans_to_local(dir);
  return search<src_info>(src_list, hash_of(src_list, {local_dir, s_phyid, acl_id}), [=](const src_info &e) {
    return e.dir == local_dir && e.s_phyid == s_phyid && e.acl_id == acl_id;
  });
}

dst_info *mirror_list_search_dst_info(mirror_link *dst_list, uint32_t dir, uint32_t s_phyid, uint32_t d_phyid,
                                      uint32_t acl_id) {
  const uint32_t local_dir = idl_dir_trans_to_local(dir);
  return search<dst_info>(dst_list, hash_of(dst_list, {local_dir, s_phyid, d_phyid, acl_id}), [=](const dst_info &e) {
    return e.dir == local_dir && e.s_phyid == s_phyid && e.d_phyid == d_phyid && e.acl_id == acl_id;
  });
}

mtp_info *mirror_list_search_mtp_info(mirror_link *mtp_list, uint32_t session_id) {
  return search<mtp_info>(mtp_list, hash_of(mtp_list, {session_id}),
                          [=](const mtp_info &entry) { return entry.session_id == session_id; });
}

int32_t mirror_list_del(mirror_link *entry) {
  node *at = addresses.first(address_hash(entry));
  while (at != nullptr && at->entry != entry) at = at->next[by_address];
  if (at != nullptr) forget(at);
  entry->prev->next = entry->next;
  entry->next->prev = entry->prev;
  return 0;
}
