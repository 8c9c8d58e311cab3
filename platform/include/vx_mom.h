/* Record store.
 *
 * Records are protocol-buffer messages in numbered databases. The key of a record is a message, its field
 * `index`. A process declares the types of records that it reads and writes and registers event handlers for those
 * that it reads. The library then delivers every record and every change, one at a time, from inside the event
 * loop of the global context. Nothing here may be called from another thread.
 *
 * Life of a registration: vx_mom_ab_init, vx_mom_reg_ds, vx_mom_set_ds_opt, vx_mom_reg_key_event for each source,
 * vx_mom_reg_all_ds_event. Reading starts when control returns to the event loop: first every stored record as a
 * set event, source by source in the order of the entries, then the all-data-sources-over event, then changes as
 * they happen. After a lost connection the handlers receive events for what has changed meanwhile. */
#ifndef VX_MOM_H
#define VX_MOM_H

#include <stddef.h>
#include <stdint.h>

#include <protobuf-c/protobuf-c.h>

#include "vx_global.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Statuses of this library. */
enum {
  VX_MOM_OK = 0,
  VX_MOM_MISSING = -2, /* no message, no `index` in it, or memory is exhausted */
  VX_MOM_INVALID = -4, /* an argument is not what the call takes */
  VX_MOM_UNKNOWN = -7  /* the source is not declared */
};

/* Kinds of key events. A published message reaches only those who listen at that time; it is not stored. */
enum { VX_MOM_EVENT_SET = 0, VX_MOM_EVENT_DEL = 1, VX_MOM_EVENT_PUBLISH = 2 };

/* Options of a declaration of sources. */
enum {
  VX_MOM_OPT_OWN_RECORDS = 2 /* 1: also read the process's own records in its outputs, so that after a restart
                                equal ones are not written again and left-over ones are deleted */
};

/* Registration of one process. The library's own data follow this struct. */
struct vx_mom_ab {
  struct vx_global *global; /* the context that the events are delivered in; the store handle of the record calls */
};

struct vx_mom_ab_opt {
  uint32_t word[2]; /* 0 */
};

/* Declares one data source. On the switch 40 bytes, 8-byte aligned. */
struct mom_ds_entry {
  const ProtobufCMessage *record; /* template: all defaults, its key names the owner; copied by the library */
  uint32_t db_id;
  uint32_t enabled;   /* 1 */
  uint32_t is_output; /* 0: the process reads the records, 1: it writes them */
  uint32_t reserved1; /* 0 */
#ifdef __cplusplus
  alignas(8)
#else
  _Alignas(8)
#endif
      uint64_t reserved2; /* 0 */
  uint32_t reserved3;     /* 0 */
};

#if UINTPTR_MAX == UINT32_MAX
#ifdef __cplusplus
#define MOM_DS_ASSERT(what) static_assert(what, #what)
#else
#define MOM_DS_ASSERT(what) _Static_assert(what, #what)
#endif
MOM_DS_ASSERT(offsetof(struct mom_ds_entry, record) == 0);
MOM_DS_ASSERT(offsetof(struct mom_ds_entry, db_id) == 4);
MOM_DS_ASSERT(offsetof(struct mom_ds_entry, enabled) == 8);
MOM_DS_ASSERT(offsetof(struct mom_ds_entry, is_output) == 12);
MOM_DS_ASSERT(offsetof(struct mom_ds_entry, reserved1) == 16);
MOM_DS_ASSERT(offsetof(struct mom_ds_entry, reserved2) == 24);
MOM_DS_ASSERT(offsetof(struct mom_ds_entry, reserved3) == 32);
MOM_DS_ASSERT(sizeof(struct mom_ds_entry) == 40);
#undef MOM_DS_ASSERT
#endif

/* Handler of key events. `is_del` is 0 for a record that was added or replaced and for a message that was published,
 * else the record was deleted and `message` holds its last contents. `message` is the decoded record of the source's
 * type, owned by the library and gone when the handler returns. A non-zero status is logged and counted by the library,
 * and nothing else. */
typedef int32_t (*vx_mom_event_cb)(void *context, uint32_t is_del, const void *message);

/* Handler of the all-data-sources-over event: every declared input was read for the first time. */
typedef int32_t (*vx_mom_all_ds_cb)(void *context);

/* Registers the application `app_name` (copied) with the store. `opt` is valid as long as the process lives. `global`
 * may be null: a context is created then. Returns the handle, owned by the library until the context is finished, or
 * null when the platform's configuration cannot be used. An unreachable store is no failure: it is tried again. */
struct vx_mom_ab *vx_mom_ab_init(struct vx_global *global, const char *app_name, const struct vx_mom_ab_opt *opt);

/* Declares the sources; replaces what was declared before. Entries and templates are copied. An input whose messages
 * have no `index` can only receive published messages. Returns a number for vx_mom_set_ds_opt, 0 when the
 * declaration was refused (the log says why). */
uint32_t vx_mom_reg_ds(struct vx_mom_ab *ab, const struct mom_ds_entry *inputs, uint32_t n_inputs,
                       const struct mom_ds_entry *outputs, uint32_t n_outputs);

/* Sets an option (VX_MOM_OPT_...) of the declaration `ds`. Returns 0, VX_MOM_INVALID or VX_MOM_UNKNOWN. */
int32_t vx_mom_set_ds_opt(struct vx_mom_ab *ab, uint32_t ds, uint32_t option, const uint32_t *value);

/* Registers a handler for the events of `kind` of a declared input; `user` becomes the handler's context.
 * Returns 0, VX_MOM_INVALID or VX_MOM_UNKNOWN. */
int32_t vx_mom_reg_key_event(struct vx_mom_ab *ab, const struct mom_ds_entry *input, uint32_t kind,
                             vx_mom_event_cb handler, void *user);

/* Registers the handler of the all-data-sources-over event; `flags` is 0. Returns 0 or VX_MOM_INVALID. */
int32_t vx_mom_reg_all_ds_event(struct vx_mom_ab *ab, uint32_t flags, vx_mom_all_ds_cb handler, void *user);

/* The record calls. `message` is encoded during the call and stays the caller's; the last two arguments are 0.
 * 0 means that the write is accepted: it is sent with the others of this turn of the loop, in one transaction, so that
 * readers get what one event leads to together; sent again after a lost connection; and logged and counted when the
 * server refuses it. Other results: VX_MOM_MISSING,
 * VX_MOM_INVALID.
 *
 * set: creates the record or replaces the one with the same key.
 * del: deletes the record with the key in `index`; the other fields are ignored. A missing record is no error.
 * publish: delivers `message`, which needs no key, to those who listen now; nothing is stored. */
int32_t vx_mom_set(struct vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t zero1,
                   uint32_t zero2);
int32_t vx_mom_del(struct vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t zero1,
                   uint32_t zero2);
int32_t vx_mom_publish(struct vx_global *store, uint32_t db_id, const ProtobufCMessage *message, uint32_t zero1,
                       uint32_t zero2);

#ifdef __cplusplus
}
#endif

#endif
