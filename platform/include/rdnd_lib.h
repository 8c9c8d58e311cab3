/* Redundancy service: tells a process when it is the active one and may start its work. */
#ifndef RDND_LIB_H
#define RDND_LIB_H

#include <stddef.h>
#include <stdint.h>

#include "vx_global.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Called from inside the event loop. `context` is the service's own; the status is returned to the service. */
typedef int32_t (*rdnd_awake_cb)(void *context);

/* Ten words, 32 bits each on the switch. It and everything it points to are valid as long as the process lives. */
struct rdnd_mom_reg_info {
  uintptr_t instance; /* the context's `instance` */
  const char *app_name;
  struct vx_global *global; /* the context that the callbacks run in */
  rdnd_awake_cb awake;      /* the process is active and may start its work */
  rdnd_awake_cb awake_peer; /* the same for a process that takes over from a peer */
  uintptr_t reserved[3];    /* 0 */
  const uint32_t *db_list;  /* ids of the store databases that the process works on */
  uint32_t n_db;            /* number of ids in db_list */
};

#if UINTPTR_MAX == UINT32_MAX
#define RDND_WORD(field, word) \
  _Static_assert(offsetof(struct rdnd_mom_reg_info, field) == 4u * (word), "word of " #field)
#ifdef __cplusplus
#define _Static_assert static_assert
#endif
RDND_WORD(instance, 0);
RDND_WORD(app_name, 1);
RDND_WORD(global, 2);
RDND_WORD(awake, 3);
RDND_WORD(awake_peer, 4);
RDND_WORD(reserved, 5);
RDND_WORD(db_list, 8);
RDND_WORD(n_db, 9);
#ifdef __cplusplus
#undef _Static_assert
#endif
#undef RDND_WORD
#endif

/* Registers the process; the library may keep the record's address. It calls a wake-up callback later, once, from
 * inside the event loop. Returns 0 or a non-zero status. */
int32_t rdnd_lib_mom_reg(const struct rdnd_mom_reg_info *info);

#ifdef __cplusplus
}
#endif

#endif
