// The two tables of outflow groups, both of one kind: open addressing over pointers to entries, keyed by the first
// 32-bit word of an entry.
#include "proc/lspan/outgrb_hash.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "proc/ko_span_target.h"
#include "proc/lspan/ko_list.h"

namespace {

constexpr uint32_t smallest_table = 4;  // buckets; every table has a power of two
constexpr double fullest = 0.77;        // part of the buckets that may be occupied

// Empty (entry null), deleted (entry deleted_mark) or live.
struct bucket {
  void *entry;
  uint32_t key;  // of a live entry, so that a search need not look at the entries that it passes
};

struct table {
  uint32_t n_buckets;  // 0 until the first entry
  uint32_t n_live;
  uint32_t n_occupied;  // live entries and deleted marks
  uint32_t bound;       // occupied buckets at which an insert rebuilds the table first
  bucket *buckets;      // owned
};

table *outgrb_mbr_hash;
table *outgrb_group_hash;
char deleted_mark;

uint32_t key_of(const void *record) {
  uint32_t key;
  memcpy(&key, record, sizeof(key));
  return key;
}

bool is_live(const bucket &at) { return at.entry != nullptr && at.entry != &deleted_mark; }

int32_t create(table **made) {
  if (*made == nullptr) *made = static_cast<table *>(calloc(1, sizeof(table)));
  return *made != nullptr ? 0 : -1;
}

// The bucket of the live entry with that key, or null.
bucket *find(const table *in, uint32_t key) {
  if (in == nullptr || in->n_buckets == 0) return nullptr;
  const uint32_t mask = in->n_buckets - 1;
  const uint32_t start = outgrb_key_hash(key) & mask;
  uint32_t at = start;
  uint32_t step = 0;
  while (in->buckets[at].entry != nullptr) {
    if (in->buckets[at].key == key && is_live(in->buckets[at])) return &in->buckets[at];
    at = (at + ++step) & mask;
    if (at == start) break;
  }
  return nullptr;
}

void *get(const table *in, const void *key) {
  if (key == nullptr) return nullptr;
  const bucket *found = find(in, key_of(key));
  return found != nullptr ? found->entry : nullptr;
}

// Puts an entry whose key is absent into a table that has an empty bucket: on the last deleted bucket of its path, else
// on the empty one that ends it.
void place(table *in, void *entry) {
  const uint32_t mask = in->n_buckets - 1;
  const uint32_t key = key_of(entry);
  uint32_t at = outgrb_key_hash(key) & mask;
  bucket *deleted = nullptr;
  for (uint32_t step = 1; in->buckets[at].entry != nullptr; ++step) {
    if (in->buckets[at].entry == &deleted_mark) deleted = &in->buckets[at];
    at = (at + step) & mask;
  }
  if (deleted == nullptr) ++in->n_occupied;
  *(deleted != nullptr ? deleted : &in->buckets[at]) = {entry, key};
  ++in->n_live;
}

// Makes room: the same number of buckets without their deleted marks where that is enough, else twice as many. False
// when memory is exhausted; the table is as it was then.
bool rebuild(table *in) {
  table next = {};
  next.n_buckets = in->n_buckets;
  if (in->n_live >= in->n_buckets / 2) next.n_buckets = in->n_buckets != 0 ? in->n_buckets * 2 : smallest_table;
  if (next.n_buckets < in->n_buckets) return false;
  next.bound = static_cast<uint32_t>(std::lround(next.n_buckets * fullest));
  next.buckets = static_cast<bucket *>(calloc(next.n_buckets, sizeof(bucket)));
  if (next.buckets == nullptr) return false;
  for (uint32_t i = 0; i < in->n_buckets; ++i)
    if (is_live(in->buckets[i])) place(&next, in->buckets[i].entry);
  std::swap(*in, next);
  free(next.buckets);
  return true;
}

// Inserts an entry whose key is absent. When there is no memory or no table, frees it and returns null.
void *insert(table *in, void *entry) {
  if (in == nullptr || (in->n_occupied >= in->bound && !rebuild(in))) {
    free(entry);
    return nullptr;
  }
  place(in, entry);
  return entry;
}

void remove(table *in, void *entry) {
  bucket *found = find(in, key_of(entry));
  if (found != nullptr) {
    found->entry = &deleted_mark;
    --in->n_live;
  }
  free(entry);
}

}  // namespace

int32_t outgrb_mbr_hash_init() { return create(&outgrb_mbr_hash); }

int32_t outgrb_group_hash_init() { return create(&outgrb_group_hash); }

outgrb_mbr_info *outgrb_mbr_hash_get(const void *key) {
  return static_cast<outgrb_mbr_info *>(get(outgrb_mbr_hash, key));
}

outgrb_group_info *outgrb_group_hash_get(const void *key) {
  return static_cast<outgrb_group_info *>(get(outgrb_group_hash, key));
}

outgrb_mbr_info *outgrb_mbr_hash_set(outgrb_mbr_info **entry, const outgrb_mbr_info *record) {
  outgrb_mbr_info *found = outgrb_mbr_hash_get(record);
  if (found == nullptr) {
    found = static_cast<outgrb_mbr_info *>(malloc(sizeof(*found)));
    if (found != nullptr) {
      *found = *record;
      found = static_cast<outgrb_mbr_info *>(insert(outgrb_mbr_hash, found));
    }
  } else {
    *found = *record;
  }
  *entry = found;
  return found;
}

outgrb_group_info *outgrb_group_hash_set(outgrb_group_info **entry, const outgrb_group_info *record) {
  outgrb_group_info *found = outgrb_group_hash_get(record);
  if (found == nullptr) {
    found = static_cast<outgrb_group_info *>(calloc(1, sizeof(*found)));
    if (found != nullptr) {
      found->group_id = record->group_id;
      ko_list_init(&found->mbr_list);
      found = static_cast<outgrb_group_info *>(insert(outgrb_group_hash, found));
    }
  }
  if (found != nullptr) ko_span_target_name(found, record->mtp_info);
  *entry = found;
  return found;
}

void outgrb_mbr_hash_del(outgrb_mbr_info *entry) { remove(outgrb_mbr_hash, entry); }

void outgrb_group_hash_del(outgrb_group_info *entry) {
  ko_span_target_name(entry, nullptr);
  remove(outgrb_group_hash, entry);
}

void outgrb_mbr_list_remove(mirror_link *mbr_list, uint32_t ifx) {
  mirror_link *next = nullptr;
  for (mirror_link *at = mbr_list->next; at != mbr_list; at = next) {
    next = at->next;
    auto *node = ko_list_entry<outgrb_mbr_node>(at);
    if (node->ifx != ifx) continue;
    ko_list_unlink(at);
    free(node);
  }
}

// XXH32 of the key's four bytes with seed 0.
uint32_t outgrb_key_hash(uint32_t key) {
  uint32_t hash = 0x165667B5U + key * 0xC2B2AE3DU;
  hash = (hash << 17 | hash >> 15) * 0x27D4EB2FU;
  hash = (hash ^ hash >> 15) * 0x85EBCA77U;
  hash = (hash ^ hash >> 13) * 0xC2B2AE3DU;
  return hash ^ hash >> 16;
}
