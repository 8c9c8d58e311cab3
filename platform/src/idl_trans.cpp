// Enumeration conversion: on this platform the local numbers are those of the records.
#include "idl_trans.h"

uint32_t idl_dir_trans_to_local(uint32_t dir) { return dir; }

uint32_t idl_role_trans_to_local(uint32_t role) { return role; }

uint32_t idl_mod_type_trans_to_local(uint32_t module_type) { return module_type; }

uint32_t idl_apply_type_trans_to_local(uint32_t apply_type) { return apply_type; }
