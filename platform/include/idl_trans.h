/* Enumeration conversion: from wire values, as in records, to the platform's local values. A value without a
 * counterpart is returned unchanged. */
#ifndef IDL_TRANS_H
#define IDL_TRANS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

uint32_t idl_dir_trans_to_local(uint32_t dir);
uint32_t idl_role_trans_to_local(uint32_t role);             /* u_monitor.mirror_role */
uint32_t idl_mod_type_trans_to_local(uint32_t module_type);  /* u_monitor.mirror_module */
uint32_t idl_apply_type_trans_to_local(uint32_t apply_type); /* u_monitor.mirror_type */

#ifdef __cplusplus
}
#endif

#endif
