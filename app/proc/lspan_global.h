// The daemon's process-wide state and its log channel: used by all its units.
#pragma once

#include <cstdint>

#include "001_init_a/dl_zlog.h"
#include "mirror_list.h"
#include "vx_global.h"
#include "vx_mom.h"

inline constexpr const char *ko_lspan_app_name = "ko_lspan";  // also the owner of every record the daemon writes

// Zero at process start, filled by main, read by everyone.
struct lspan_global_t {
  vx_global *global;                // store handle of the record calls; set once the store is open
  vx_zlog_category *zlog_category;  // null until start-up has succeeded
  vx_mom_ab *mom_ab;                // registration with the store
  mirror_link session_list;         // of mirror_info; empty before the store is opened
};

extern lspan_global_t lspan_global;
extern uint32_t lspan_zlog_level;  // 1, errors only, until the level file was read

// Makes the state ready for the store to be opened: a log channel, no store, no sessions. Sessions that it
// held are not freed.
void lspan_global_init(vx_zlog_category *zlog_category, uint32_t zlog_level);

// Messages on the application's log channel, under the calling function's name.
#define LSPAN_LOG(kind, ...) DL_ZLOG_WRITE(lspan_global.zlog_category, lspan_zlog_level, kind, __func__, __VA_ARGS__)
#define LSPAN_ERROR(...) LSPAN_LOG(dl_zlog_error, __VA_ARGS__)
#define LSPAN_INFO(...) LSPAN_LOG(dl_zlog_info, __VA_ARGS__)
#define LSPAN_DEBUG(...) LSPAN_LOG(dl_zlog_debug, __VA_ARGS__)
