/* Mirror lists: the mirror sessions in memory, with their sources, destinations and targets.
 *
 * Every list is circular and doubly linked: a head in its owner, and a link as the first member of every entry,
 * so that a pointer to the link points to the entry. A list is empty when its head's `next` is the head. Callers
 * may walk a list from the head's `next` until they reach the head again; only the calls below change one.
 *
 * Entries are allocated by the add calls with the standard allocator, zero-filled and linked at the tail. After
 * mirror_list_del has unlinked one, the caller releases it with free(). The caller fills an entry's fields; those
 * that a search compares (named there) must not change any more once they are set, until the entry is unlinked. */
#ifndef MIRROR_LIST_H
#define MIRROR_LIST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { MIRROR_VLAN_WORDS = 128 }; /* a bit map of 4096 VLANs */

struct mirror_link {
  struct mirror_link *next;
  struct mirror_link *prev;
};

/* Head of an IP mirror tunnel. */
struct mirror_ip_head {
  uint32_t src_ip;
  uint32_t dst_ip;
  uint32_t ttl;
  uint32_t dscp;
  uint32_t vrf;
};

/* One mirror session. */
struct mirror_info {
  struct mirror_link link;
  uint32_t session_id; /* session number */
  uint32_t mod_type;   /* module type, local value, of the time when the session was created */
  struct mirror_link src_list;
  struct mirror_link dst_list;
  struct mirror_link mtp_list; /* at most one entry */
};

/* One source of a session. */
struct src_info {
  struct mirror_link link;
  uint32_t s_phyid;    /* physical id of the source port, 0: no port */
  uint32_t d_phyid;    /* physical id of the target port, 0: no port; for a group target its tagged id */
  uint32_t dir;        /* direction, local value */
  uint32_t apply_type; /* local value */
  uint32_t acl_id;
  uint32_t vlan_map[MIRROR_VLAN_WORDS]; /* for local apply types 2 and 3, else 0 */
};

/* One pair of source and target of a session. */
struct dst_info {
  struct mirror_link link;
  uint32_t dir; /* direction, local value */
  uint32_t acl_id;
  uint32_t s_phyid; /* as in src_info */
  uint32_t d_phyid; /* as in src_info */
  uint32_t sample_rate;
};

/* The mirror-target port of a session. */
struct mtp_info {
  struct mirror_link link;
  uint32_t session_id;           /* session number */
  uint32_t d_phyid;              /* as in src_info */
  uint8_t mtp_switch;            /* 0: the target stops learning, 1: it keeps learning */
  uint32_t module_type;          /* wire value, 5: the target is a group */
  uint32_t role;                 /* local value */
  uint32_t mtp_type;             /* 0 local port, 1 behind an RSPAN VLAN, 2 behind an ERSPAN tunnel */
  uint32_t rspan_vlan;           /* for mtp_type 1 */
  struct mirror_ip_head ip_head; /* for mtp_type 2 */
};

#if UINTPTR_MAX == UINT32_MAX
#ifdef __cplusplus
#define MIRROR_ASSERT(what) static_assert(what, #what)
#else
#define MIRROR_ASSERT(what) _Static_assert(what, #what)
#endif
MIRROR_ASSERT(offsetof(struct mirror_info, session_id) == 8);
MIRROR_ASSERT(offsetof(struct mirror_info, mod_type) == 12);
MIRROR_ASSERT(offsetof(struct mirror_info, src_list) == 16);
MIRROR_ASSERT(offsetof(struct mirror_info, dst_list) == 24);
MIRROR_ASSERT(offsetof(struct mirror_info, mtp_list) == 32);
MIRROR_ASSERT(sizeof(struct mirror_info) == 40);
MIRROR_ASSERT(offsetof(struct src_info, s_phyid) == 8);
MIRROR_ASSERT(offsetof(struct src_info, d_phyid) == 12);
MIRROR_ASSERT(offsetof(struct src_info, dir) == 16);
MIRROR_ASSERT(offsetof(struct src_info, apply_type) == 20);
MIRROR_ASSERT(offsetof(struct src_info, acl_id) == 24);
MIRROR_ASSERT(offsetof(struct src_info, vlan_map) == 28);
MIRROR_ASSERT(sizeof(struct src_info) == 540);
MIRROR_ASSERT(offsetof(struct dst_info, dir) == 8);
MIRROR_ASSERT(offsetof(struct dst_info, acl_id) == 12);
MIRROR_ASSERT(offsetof(struct dst_info, s_phyid) == 16);
MIRROR_ASSERT(offsetof(struct dst_info, d_phyid) == 20);
MIRROR_ASSERT(offsetof(struct dst_info, sample_rate) == 24);
MIRROR_ASSERT(sizeof(struct dst_info) == 28);
MIRROR_ASSERT(offsetof(struct mtp_info, session_id) == 8);
MIRROR_ASSERT(offsetof(struct mtp_info, d_phyid) == 12);
MIRROR_ASSERT(offsetof(struct mtp_info, mtp_switch) == 16);
MIRROR_ASSERT(offsetof(struct mtp_info, module_type) == 20);
MIRROR_ASSERT(offsetof(struct mtp_info, role) == 24);
MIRROR_ASSERT(offsetof(struct mtp_info, mtp_type) == 28);
MIRROR_ASSERT(offsetof(struct mtp_info, rspan_vlan) == 32);
MIRROR_ASSERT(offsetof(struct mtp_info, ip_head) == 36);
MIRROR_ASSERT(sizeof(struct mtp_info) == 56);
#undef MIRROR_ASSERT
#endif

/* Each returns the new entry, or null when memory is exhausted. A session's three lists are made empty. */
struct mirror_info *mirror_list_add_session_info(struct mirror_link *session_list);
struct src_info *mirror_list_add_src_info(struct mirror_link *src_list);
struct dst_info *mirror_list_add_dst_info(struct mirror_link *dst_list);
struct mtp_info *mirror_list_add_mtp_info(struct mirror_link *mtp_list);

/* Each returns the entry of the list whose fields equal the arguments, or null. `dir` is a wire value, which
 * the search converts to the local one before it compares. */
struct mirror_info *mirror_list_search_session_info(struct mirror_link *session_list, uint32_t session_id);
struct src_info *mirror_list_search_src_info(struct mirror_link *src_list, uint32_t dir, uint32_t s_phyid,
                                             uint32_t acl_id);
struct dst_info *mirror_list_search_dst_info(struct mirror_link *dst_list, uint32_t dir, uint32_t s_phyid,
                                             uint32_t d_phyid, uint32_t acl_id);
struct mtp_info *mirror_list_search_mtp_info(struct mirror_link *mtp_list, uint32_t session_id);

/* Unlinks an entry of any kind from its list without freeing it. Returns 0. */
int32_t mirror_list_del(struct mirror_link *entry);

#ifdef __cplusplus
}
#endif

#endif
