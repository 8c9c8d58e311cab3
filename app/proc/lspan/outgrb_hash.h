// Outflow groups in memory: which interface is in which group, and which members a group has.
//
// Two process-wide tables of one kind, created once at start-up. Entries are allocated by set and freed by del, and
// keep their address while a table grows.
#pragma once

#include <cstdint>

#include "mirror_list.h"

// One interface that is in a group.
struct outgrb_mbr_info {
  uint32_t ifx;       // key: interface index
  uint32_t group_id;  // its group; 0 only while it is being put into its first one
};

// One group that has, or had, members.
struct outgrb_group_info {
  uint32_t group_id;          // key
  mirror_link mbr_list;       // of outgrb_mbr_node, owned, in the order in which they joined
  struct mtp_info *mtp_info;  // target entry of a session that mirrors to this group, or null; not owned
  // ko_span_target_name writes the entry and, beside it, the chain of the groups that name the same one.
  outgrb_group_info *next_named;  // null: last
  outgrb_group_info **named_at;   // the pointer that leads to this group; null: in no chain
};

// One place of an interface in a group. An interface that joined more than once has more than one.
struct outgrb_mbr_node {
  mirror_link link;
  uint32_t ifx;
};

// Create a table. Return 0, or -1 when memory is exhausted.
int32_t outgrb_mbr_hash_init();
int32_t outgrb_group_hash_init();

// The entry whose key is the first 32-bit word of the record `key` points at; null when there is none, and for a null
// `key`.
outgrb_mbr_info *outgrb_mbr_hash_get(const void *key);
outgrb_group_info *outgrb_group_hash_get(const void *key);

// Update the entry with the record's key, or insert a new one. A group's member list is kept, a new one is empty.
// Return the entry, also in *entry; null when memory is exhausted, with the table as it was.
outgrb_mbr_info *outgrb_mbr_hash_set(outgrb_mbr_info **entry, const outgrb_mbr_info *record);
outgrb_group_info *outgrb_group_hash_set(outgrb_group_info **entry, const outgrb_group_info *record);

// Remove a live entry from its table and free it. A group's member list must be empty.
void outgrb_mbr_hash_del(outgrb_mbr_info *entry);
void outgrb_group_hash_del(outgrb_group_info *entry);

// Unlinks and frees every node of `ifx` in a group's member list.
void outgrb_mbr_list_remove(mirror_link *mbr_list, uint32_t ifx);

// Hash of a key.
uint32_t outgrb_key_hash(uint32_t key);
