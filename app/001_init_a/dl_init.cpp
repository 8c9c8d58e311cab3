// Start-up driver: the table of steps and the loop over it.
#include "001_init_a/dl_init.h"

#include "001_init_a/dl_zlog.h"

namespace {

// The order matters: all steps log to the channel that the first one opens, and the steps that build file names come
// after "proc name".
const dl_init_step_t dl_init_steps[] = {
    {"inner zlog", dl_init_inner_zlog, 0},      {"proc name", dl_init_proc_name, 0},
    {"check param", dl_init_user_param, 0},     {"check running", dl_init_running_check, DL_INIT_CHECK_RUNNING},
    {"ham", dl_init_ham, DL_INIT_HAM},          {"zlog", dl_init_zlog, DL_INIT_ZLOG},
    {"global", dl_init_global, DL_INIT_GLOBAL},
};

}  // namespace

int32_t dl_init(uint32_t flags, const dl_init_in_t *in, dl_init_out_t *out) {
  DL_INFO("\033[32minit start.\033[0m");
  dl_init_arg_t arg = {};
  arg.in = in;
  arg.out = out;
  for (const dl_init_step_t &step : dl_init_steps) {
    if ((step.mask & flags) != step.mask) continue;
    const int32_t rv = step.func(&arg);
    if (rv != 0) {
      DL_ERROR("\033[31m<init> init %s failed, rv = %d.\033[0m", step.name, rv);
      return rv;
    }
    DL_DEBUG("\033[35m<init> init %s successfully.\033[0m", step.name);
  }
  dl_print_result(&arg);
  DL_INFO("\033[32minit end.\033[0m");
  return 0;
}

void dl_print_result(const dl_init_arg_t *arg) {
  DL_INFO("\033[34m<init> + result for dl_init_arg_t.\033[0m");
  DL_INFO("\033[34m<init>   - proc name is %s.\033[0m", arg->proc_name);
  DL_INFO("\033[34m<init> + result for dl_init_out_t.\033[0m");
  DL_INFO("\033[34m<init>   - global is 0x%p.\033[0m", static_cast<void *>(arg->out->global));
  DL_INFO("\033[34m<init>   - zlog category is 0x%p.\033[0m", static_cast<void *>(arg->out->zlog_category));
  DL_INFO("\033[34m<init>   - zlog level is %d.\033[0m", arg->out->zlog_level);
}
