// Start-up driver: a fixed table of steps, run in order until one fails.
#pragma once

#include <cstdint>

#include "vx_global.h"
#include "vx_zlog.h"

inline constexpr size_t dl_name_size = 128;  // bytes of every name and path buffer of the start-up, with the NUL

// Selection of the steps that do not always run.
inline constexpr uint32_t DL_INIT_CHECK_RUNNING = 1;  // take the pid-file lock, or end the process
inline constexpr uint32_t DL_INIT_HAM = 2;            // register with the high-availability monitor
inline constexpr uint32_t DL_INIT_ZLOG = 4;           // open the application's log channel
inline constexpr uint32_t DL_INIT_GLOBAL = 8;         // create the global context

// What the caller wants.
struct dl_init_in_t {
  const char *zlog_conf;  // the application's log category, which also names its level file; borrowed
};

// What start-up found. Owned by the caller, cleared and filled by the steps.
struct dl_init_out_t {
  uint32_t zlog_level;              // level of the application's log channel
  vx_zlog_category *zlog_category;  // its category, null until the step "zlog" has run
  vx_global *global;                // null unless the step "global" was selected
};

// State that the steps of one run share.
struct dl_init_arg_t {
  char proc_name[dl_name_size];  // base name of the executable file
  const dl_init_in_t *in;
  dl_init_out_t *out;
};

struct dl_init_step_t {
  char name[dl_name_size];
  int32_t (*func)(dl_init_arg_t *arg);  // 0: success
  uint32_t mask;                        // runs when all these flags are selected; 0: always
};

// Runs the steps that `flags` (DL_INIT_...) selects. Returns 0, or the status of the first step that failed:
// ko_status_invalid for a missing argument, ko_status_not_found or ko_status_unreadable for the process name,
// ko_status_locked for the pid file, ko_status_unavailable for a log category or the global context, or the monitor's
// own status. Nothing is rolled back. When another instance holds the pid file the process ends here,
// with status ko_status_locked.
int32_t dl_init(uint32_t flags, const dl_init_in_t *in, dl_init_out_t *out);

// Logs the contents of `arg` in the start-up module's channel, at info level.
void dl_print_result(const dl_init_arg_t *arg);

// The steps, in the order in which they run. Each returns 0 or one of the statuses above.
int32_t dl_init_inner_zlog(dl_init_arg_t *arg);
int32_t dl_init_proc_name(dl_init_arg_t *arg);
int32_t dl_init_user_param(dl_init_arg_t *arg);
int32_t dl_init_running_check(dl_init_arg_t *arg);
int32_t dl_init_ham(dl_init_arg_t *arg);
int32_t dl_init_zlog(dl_init_arg_t *arg);
int32_t dl_init_global(dl_init_arg_t *arg);

// Reads the level file of `in->zlog_conf` into *level; 1 when it holds no number.
void dl_get_zlog_level(const dl_init_in_t *in, uint32_t *level);

// Logs that the category of `in->zlog_conf` cannot be obtained. Returns ko_status_unavailable.
int32_t dl_get_zlog_category(const dl_init_in_t *in);
