// The daemon's whole life: start up, open the store, then serve the event loop until it ends.
#include "001_init_a/dl_init.h"
#include "proc/lspan/ko_lspan.h"

int main() {
  const dl_init_in_t in = {ko_lspan_app_name};
  dl_init_out_t out = {};
  int32_t rv = dl_init(DL_INIT_CHECK_RUNNING | DL_INIT_HAM | DL_INIT_ZLOG, &in, &out);
  if (rv != 0) {
    LSPAN_ERROR("dl_init fail, ret=%d", rv);
    return rv;
  }
  lspan_global_init(out.zlog_category, out.zlog_level);
  uint8_t run = 0;
  rv = ko_lspan_mom_init(&run);
  if (run == 0) return rv;
  vx_global_run(lspan_global.global);
  vx_global_finish(lspan_global.global);
  return 0;
}
