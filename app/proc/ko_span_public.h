// SPAN record writer: turns a session member into records for the forwarding side and into entries of the session
// list. The record setters never touch the list; the entry setters never call the store.
//
// Every operation returns 0 for success. A failure is logged where it is met. Nothing is rolled back.
#pragma once

#include <cstdint>
#include <cstring>

#include "ko_status.h"
#include "mirror_list.h"
#include "u_monitor.pb-c.h"
#include "vx_global.h"

// Databases of the record store.
inline constexpr uint32_t CONF_DB = 4;  // configuration, and the results relayed to it
inline constexpr uint32_t FWD_DB = 6;   // port learning
inline constexpr uint32_t UDP_DB = 8;   // derived mirror records, and the forwarding side's results

// An outflow group stands where an interface index is wanted, as a number of its own kind that is never translated: the
// group's id with a tag.
inline constexpr uint32_t ko_span_group_tag = 0xFD000000;
constexpr uint32_t ko_span_group_ifx(uint32_t group_id) { return group_id ^ ko_span_group_tag; }
constexpr uint32_t ko_span_group_id(uint32_t ifx) { return ifx ^ ko_span_group_tag; }
constexpr bool ko_span_is_group_ifx(uint32_t ifx) { return (ifx & ko_span_group_tag) == ko_span_group_tag; }

// Owner of the forwarding side's result records.
inline constexpr const char *ko_span_peer_name = "du_span";

// One session member on its way from the event to the writers. Lives for the duration of the event; its readers copy
// what they keep. Numbers are as received.
struct span_info {
  const char *t_user;  // owner of every record key, a constant text
  uint32_t session_num;
  uint32_t s_ifx;  // source interface index, 0: no port
  uint32_t d_ifx;  // target interface index, 0: no port; for a group target its tagged id
  uint32_t dir;
  uint32_t module_type;  // u_monitor.mirror_module
  uint32_t role;         // u_monitor.mirror_role
  uint32_t apply_type;   // u_monitor.mirror_type
  uint32_t acl_id;
  uint32_t sample_rate;
  uint32_t n_vlan_map;                   // words of vlan_map in use, at most MIRROR_VLAN_WORDS
  uint32_t vlan_map[MIRROR_VLAN_WORDS];  // the rest is 0
  uint32_t rspan_vlan;                   // remote targets only, else 0
  mirror_ip_head ip_head;                // remote targets only, else 0
  uint8_t mtp_switch;                    // 1: the target keeps learning, 0: it stops
  uint8_t src_is_subif;                  // 0
};

// An enumerated field of a record holds whatever 32 bits were received, also numbers that its type has no room for. It
// is read and written by these, never as a value of that type.
template <typename Enumeration>
uint32_t ko_span_enum_number(const Enumeration &field) {
  uint32_t number;
  static_assert(sizeof(field) == sizeof(number));
  memcpy(&number, &field, sizeof(number));
  return number;
}
template <typename Enumeration>
void ko_span_set_enum(Enumeration *field, uint32_t number) {
  static_assert(sizeof(*field) == sizeof(number));
  memcpy(field, &number, sizeof(number));
}

// Whether the member's target is an outflow group.
inline bool ko_span_targets_group(const span_info *info) {
  return info->module_type == U_MONITOR__MIRROR_MODULE__GROUP;
}

// ---- keys, ko_span_key.cpp ----

// Physical ids of a source and a target; 0 for interface 0, which is never translated. Returns 0 or the translation's
// code: then *d_phyid is as it was, and *s_phyid too when the source failed.
int32_t ko_span_trans_mirror_ifx_to_phyid(uint32_t s_ifx, uint32_t d_ifx, uint32_t *s_phyid, uint32_t *d_phyid);

// The member's physical ids, where a group target stands for itself. Returns 0 or the translation's code.
int32_t ko_span_member_phyids(const span_info *info, uint32_t *s_phyid, uint32_t *d_phyid);

// The physical id of the member's target alone, under the same rules. It logs nothing: the caller does.
int32_t ko_span_target_phyid(const span_info *info, uint32_t *d_phyid);

// Fill a key (its texts are borrowed from `info`). Return 0 or the translation's code with the key as it was.
int32_t ko_span_fill_src_info_key(const span_info *info, UMonitor__SpanSrcInfoIndex *key);
int32_t ko_span_fill_mtp_info_key(const span_info *info, UMonitor__SpanMtpInfoIndex *key);

// ---- records in UDP_DB: written when `is_del` is 0, else deleted ----
//
// Each returns 0, the translation's code or the store's code; the VLAN source also ko_status_no_memory.

// The member's source record: port, ACL or VLAN by its apply type.
int32_t ko_span_mom_src_set(vx_global *store, const span_info *info, uint32_t is_del);
int32_t ko_span_mom_port_src_set(vx_global *store, const span_info *info, uint32_t is_del);
int32_t ko_span_mom_acl_src_set(vx_global *store, const span_info *info, uint32_t is_del);
int32_t ko_span_mom_vlan_src_set(vx_global *store, const span_info *info, uint32_t is_del);

// The member's destination: a local port or group, behind an RSPAN VLAN, behind an ERSPAN tunnel. Local mirroring uses
// the first only.
int32_t ko_span_mom_dst_set(vx_global *store, const span_info *info, uint32_t is_del);
int32_t ko_span_mom_vlan_dst_set(vx_global *store, const span_info *info, uint32_t is_del);
int32_t ko_span_mom_ip_dst_set(vx_global *store, const span_info *info, uint32_t is_del);

// The session's mirror-target port, in the same three kinds.
int32_t ko_span_mom_mtp_set(vx_global *store, const span_info *info, uint32_t is_del);
int32_t ko_span_mom_vlan_mtp_set(vx_global *store, const span_info *info, uint32_t is_del);
int32_t ko_span_mom_ip_mtp_set(vx_global *store, const span_info *info, uint32_t is_del);

// Deletes the result record that the forwarding side wrote for the member of `index`. Returns the store's code.
int32_t ko_span_del_result(vx_global *store, const UMonitor__MirrorIndex *index);

// ---- entries of the session list: added or updated when `is_del` is 0, else removed and freed ----
//
// Each returns 0, the translation's code, ko_status_not_found for an entry to remove, or ko_status_no_memory.

int32_t ko_span_db_set_src_info(mirror_link *src_list, const span_info *info, uint32_t is_del);
int32_t ko_span_db_set_dst_info(mirror_link *dst_list, const span_info *info, uint32_t is_del);

// Also links the entry to the group that it targets, and takes it out of every group before it is freed.
int32_t ko_span_db_set_mtp_info(mirror_link *mtp_list, const span_info *info, uint32_t is_del);

// ---- whole members, ko_span_session.cpp ----

// Records a member: finds or creates its session, then saves its three entries. Failures are only logged.
void ko_span_db_save_info(mirror_link *session_list, const span_info *info);

// Removes a member; the last one takes the session's mirror target and the session with it. *last becomes 1 when the
// session has neither sources nor destinations left, else it stays as it was.
void ko_span_db_clear_info(mirror_link *session_list, const span_info *info, uint8_t *last);

// Copies the source entry of (dir, s_ifx, acl_id) in session `session_num` into *copy. Returns 0, ko_status_not_found
// (no session: the copy is not touched; no source: it is zeroed) or the translation's code.
int32_t ko_span_search_src_info(mirror_link *session_list, uint32_t session_num, uint32_t s_ifx, uint32_t dir,
                                uint32_t acl_id, src_info *copy);
