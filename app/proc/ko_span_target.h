// Mirror targets by what they target. The entries belong to the mirror-list library; what the daemon has to know of one
// beside its fields stands here: the interface index as it was received, where its session stands in the list, and
// which groups name the entry. Neither a search nor the end of a session walks the sessions.
#pragma once

#include <cstdint>

#include "mirror_list.h"

struct outgrb_group_info;

// Takes a new entry of a session's `mtp_list` into the table; it targets interface 0 until it is told otherwise.
// Returns 0, or ko_status_no_memory with the table as it was.
int32_t ko_span_target_add(mirror_link *mtp_list, mtp_info *target);

// The entry now targets group `number`, or else interface `number`.
void ko_span_target_set(const mtp_info *target, bool to_group, uint32_t number);

// Makes every group that names the entry let go of it, and forgets it. To be called before the entry is freed: one that
// moved from one group to another can still be named by the first.
void ko_span_target_remove(const mtp_info *target);

// The first entry, in the order of the session list, that targets the group or the interface; null: none does.
mtp_info *ko_span_target_find(bool to_group, uint32_t number);

// Lets a group name an entry of the table, or none (null).
void ko_span_target_name(outgrb_group_info *group, mtp_info *target);
