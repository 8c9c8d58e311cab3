// The daemon: what its units share. The road of one session event is
//   ko_lspan_info.cpp (event) -> ko_span_key.cpp -> ko_span_src/dst/mtp.cpp (records) -> ko_span_session.cpp (save).
#pragma once

#include <cstdint>

#include "mirror_list.h"
#include "p_policy.pb-c.h"
#include "proc/ko_span_public.h"
#include "proc/lspan_global.h"
#include "u_monitor.pb-c.h"
#include "vx_global.h"
#include "vx_mom.h"

// ---- start, ko_lspan_mom.cpp ----

// Opens the store, creates the group tables and registers with the redundancy service. *run becomes 1 when the event
// loop may be entered, else 0. Returns the exit status of a process that may not: 0, or ko_status_no_memory
// without group tables.
int32_t ko_lspan_mom_init(uint8_t *run);

// Wake-up: declares sources and registers handlers. Returns 0 or the status of the platform call that failed.
int32_t ko_lspan_mom_rdnd_awake_cb(void *context);

// Every input was read for the first time. Returns 0.
int32_t ko_lspan_all_ds_over_handler(void *context);

// ---- event handlers (vx_mom_event_cb); `message` is null or of the type named ----

// Set and delete events of UMonitor__MirrorLspanInfo: adds or deletes a session member. Returns 0; ko_status_missing
// for a missing record, index or session; ko_status_no_memory; ko_status_invalid for an add with more VLAN words than a
// member holds; or the code of the translation or store call that failed.
int32_t ko_lspan_info_handle(void *context, uint32_t is_del, const void *message);

// Set events of UMonitor__MirrorResultInfo: relays the forwarding side's results for known members, deletes those for
// unknown ones. Returns 0, ko_status_missing for a missing record or index, or the store's code.
int32_t ko_lspan_mom_result_info_set(void *context, uint32_t is_del, const void *message);

// Set and delete events of PPolicy__DataIntfConf: an interface joins, changes or leaves its group. Returns 0,
// ko_status_missing for a missing record or index, or ko_status_no_memory.
int32_t ko_lspan_outgrb_handle(void *context, uint32_t is_del, const void *message);

// ---- sessions, ko_lspan_info.cpp and ko_lspan_del.cpp; statuses as of ko_lspan_info_handle ----

void ko_lspan_dump_info(const UMonitor__MirrorLspanInfo *lspan_info);
int32_t ko_lspan_add(const UMonitor__MirrorLspanInfo *lspan_info, const span_info *info);
int32_t ko_lspan_del(const UMonitor__MirrorLspanInfo *lspan_info, const span_info *info);

// ---- group membership, ko_lspan_outgrb.cpp ----

int32_t ko_lspan_outgrb_add(const PPolicy__DataIntfConf *lspan_outgrb_info);  // 0 or ko_status_no_memory
int32_t ko_lspan_outgrb_del(const PIntf__Intfindex *index);                   // 0

// ---- learning on mirror targets, ko_lspan_mtp_switch.cpp ----

// Gives interface `ifx` its learning back (`on` not 0), or takes it away and has its dynamic MAC entries flushed (0).
void ko_lspan_mtp_info_switch(uint32_t ifx, uint32_t on);

// The same for a session's target: its port, or every member of its group in the order of the member list. Returns
// false for a group that has no entry; then nothing was switched.
bool ko_lspan_target_switch(const span_info *info, uint32_t on);

// ---- searches, ko_lspan_search.cpp ----

// The session entry of the record's session number, or null (logged).
mirror_info *ko_lspan_search_info(const UMonitor__MirrorLspanInfo *lspan_info);

// The member's source entry in `session`, or null (logged).
src_info *ko_lspan_search_src_info(const UMonitor__MirrorLspanInfo *lspan_info, mirror_info *session);

// The first mirror-target entry that targets group `group_id`, or null.
mtp_info *ko_lspan_mtp_info_search_by_groupid(uint32_t group_id);

// 1 when a session that does not target a group targets interface `ifx`, else 0.
uint32_t ko_lspan_info_search_ifx(uint32_t ifx);
