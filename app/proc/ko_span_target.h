// Mirror targets, found by the group or the interface that they target. The entries belong to the mirror-list library.
// This table holds what the daemon needs beyond their fields: the target's interface index as received, the session's
// position in the session list, and the groups that point at the entry. No search walks the sessions.
#pragma once

#include <cstdint>

#include "mirror_list.h"

struct outgrb_group_info;

// Adds a new entry of a session's `mtp_list`; it targets interface 0 until ko_span_target_set is called. Returns 0, or
// ko_status_no_memory with the table unchanged.
int32_t ko_span_target_add(mirror_link *mtp_list, mtp_info *target);

// Records that the entry targets group `number`, or interface `number`.
void ko_span_target_set(const mtp_info *target, bool to_group, uint32_t number);

// Removes the entry, and clears the pointer of every group that points at it. Call it before the entry is freed: an
// entry that moved from one group to another can still have the first group's pointer.
void ko_span_target_remove(const mtp_info *target);

// The first entry, in session-list order, that targets group `number` or interface `number`; null when none does.
mtp_info *ko_span_target_find(bool to_group, uint32_t number);

// Points the group's `mtp_info` at an entry of the table, or at none (null).
void ko_span_target_name(outgrb_group_info *group, mtp_info *target);
