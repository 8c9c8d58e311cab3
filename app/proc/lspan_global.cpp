// The daemon's process-wide state.
#include "proc/lspan_global.h"

lspan_global_t lspan_global;
uint32_t lspan_zlog_level = 1;

void lspan_global_init(vx_zlog_category *zlog_category, uint32_t zlog_level) {
  lspan_global = {};
  lspan_global.zlog_category = zlog_category;
  lspan_global.session_list = {&lspan_global.session_list, &lspan_global.session_list};
  lspan_zlog_level = zlog_level;
}
