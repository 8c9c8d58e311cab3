// Mirror targets, found by the group or the interface that they target. The entries belong to the mirror-list library.
// This table holds what the daemon needs beyond their fields: the target's interface index as received, the session's
// position in the session list, and the groups that point at the entry. No search walks the sessions.
#pragma once

#include <cstdint>

#include "mirror_list.h"

struct outgrb_group_info;

struct span_target {
  bool is_group;    // else an interface
  uint32_t number;  // group id or interface index

  bool operator==(const span_target &) const = default;
};

// Adds a new entry of a session's `mtp_list`. Returns 0, or ko_status_no_memory with the table unchanged.
int32_t ko_span_target_add(mirror_link *mtp_list, mtp_info *entry, span_target target);

// Records that the entry has another target now.
void ko_span_target_set(const mtp_info *entry, span_target target);

// Removes the entry, and clears the pointer of every group that points at it. Call it before the entry is freed: an
// entry that moved from one group to another can still have the first group's pointer.
void ko_span_target_remove(const mtp_info *entry);

// The first entry, in session-list order, with that target; null when there is none.
mtp_info *ko_span_target_find(span_target target);

// Points the group's `mtp_info` at an entry of the table, or at none (null).
void ko_span_target_name(outgrb_group_info *group, mtp_info *entry);
