// The index of the mirror lists: finds an entry of a list, however long the list is. The first few of a list are not in
// it: they are found faster without.
//
//   one allocation per entry:   [ entry: link, fields | node ], or without the node
//
//   by key       [ ]-> node -> node      bucket = hash of (list, searched fields)      for searches
//   by address   [ ]-> node              bucket = address of the entry                 for a removal
//   waiting      node -> node -> node    one chain a kind of entry: not yet by key
//
// Each node stands in the table by address from the first moment, since a removal is given the entry alone. Its entry's
// fields are filled by the caller after it was added: so the node waits until there is a search in a long list of its
// kind, and only then is filed by key.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "mirror_list.h"

namespace mirror_index {

enum kind { session, source, destination, n_kinds };

enum table_kind { by_key, by_address, n_tables };

// Lives as long as its entry, in the same allocation.
struct node {
  node *next[n_tables];  // in the bucket; while it waits, next[by_key] is the next that waits
  union {
    uint64_t key_hash;
    node **waits_at;  // while it waits: the pointer that leads to it
  };
  mirror_link *list;
  mirror_link *entry;
  bool waits;  // not yet in the table by key
};

// Hash of a list and the searched fields of an entry of it.
uint64_t hash_of(const mirror_link *list, std::initializer_list<uint32_t> fields);

// Takes in a zero-filled node of an entry whose fields need not be filled yet.
void add(node *added, kind of, mirror_link *list, mirror_link *entry);

// Removes the entry's node; an entry without one is left alone.
void remove(const mirror_link *entry);

// The entries of a kind whose list and fields have this hash: the first, and the one after another; null: no more.
// `hash_of_entry` gives the hash of an entry that waits.
node *first(kind of, uint64_t hash, uint64_t (*hash_of_entry)(const node &waiting));
node *next(const node *at);

}  // namespace mirror_index
