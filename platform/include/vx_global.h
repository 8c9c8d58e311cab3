/* Global context: the event loop that the whole process runs in.
 *
 * One context serves one thread. Every callback of the platform libraries runs inside vx_global_run. */
#ifndef VX_GLOBAL_H
#define VX_GLOBAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct vx_global {
  void *loop;         /* the platform's event loop; owned by the context */
  uintptr_t instance; /* the platform's identification of this process; passed on, never interpreted */
};

/* Creates a context. `proc_name` names the process in the platform's messages; it is copied.
 * Returns the context, owned by the caller until vx_global_finish, or null on failure. */
struct vx_global *vx_global_init(const char *proc_name);

/* Runs the event loop; returns only when the loop ends. */
void vx_global_run(struct vx_global *global);

/* Releases the context and what the platform attached to it. Null is allowed. */
void vx_global_finish(struct vx_global *global);

#ifdef __cplusplus
}
#endif

#endif
