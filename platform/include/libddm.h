/* Interface translation: from interface indexes to physical port ids. */
#ifndef LIBDDM_H
#define LIBDDM_H

#include <stdint.h>

#include "vx_global.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Initializes the library for the application `app_name`. Called once, before any translation. Returns 0 or a
 * non-zero status. */
int32_t libddm_init(struct vx_global *global, const char *app_name);

/* Stores the physical id of interface `ifx` in *phyid. Returns 0, or a non-zero code and leaves *phyid unchanged. */
int32_t libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid);

#ifdef __cplusplus
}
#endif

#endif
