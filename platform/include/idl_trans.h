/* Enumeration conversion: numbers as they stand in records to the platform's own. A number without a
 * counterpart is passed through. */
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
