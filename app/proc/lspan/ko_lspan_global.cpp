// Process-wide state of the daemon. Filled by main, read by everyone.
#include "proc/lspan/ko_lspan.h"

lspan_global_t lspan_global;
uint32_t lspan_zlog_level = 1;  // errors only, until the level file was read
