// How every diagnostic of the daemon is written.
//
// A channel is a log category and a numeric level, read once at start-up. The level decides before anything is
// formatted, so that a disabled message costs one comparison. The formatted text is passed as the argument of
// "%s", never as a format.
#pragma once

#include <cstdint>
#include <cstring>

#include "vx_zlog.h"

// A kind of message: the lowest channel level that admits it, and its level number for the log library.
struct dl_zlog_kind {
  uint32_t threshold;
  int zlog_level;
};

inline constexpr dl_zlog_kind dl_zlog_error{1, VX_ZLOG_ERROR};
inline constexpr dl_zlog_kind dl_zlog_warn{2, VX_ZLOG_WARN};
inline constexpr dl_zlog_kind dl_zlog_info{4, VX_ZLOG_INFO};
inline constexpr dl_zlog_kind dl_zlog_debug{5, VX_ZLOG_DEBUG};

inline constexpr size_t dl_zlog_text_size = 1024;  // bytes, with the NUL; longer texts are cut

// Writes one message of `kind`, a dl_zlog_kind, under the function name `func` when `level` admits it. A null
// category drops the message after it was formatted. The level is unsigned: -1 in a level file enables everything.
#define DL_ZLOG_WRITE(category, level, kind, func, ...)                                                               \
  do {                                                                                                                \
    if ((level) >= (kind).threshold) {                                                                                \
      char dl_zlog_text[dl_zlog_text_size] = {};                                                                      \
      at_snprintf(dl_zlog_text, sizeof(dl_zlog_text), __VA_ARGS__);                                                   \
      if ((category) != nullptr)                                                                                      \
        vxdf_zlog((category), __FILE__, sizeof(__FILE__) - 1, (func), std::strlen(func), __LINE__, (kind).zlog_level, \
                  "%s", dl_zlog_text);                                                                                \
    }                                                                                                                 \
  } while (false)

// The start-up module's own channel, category "dl"; closed (null) until its first step has run.
extern vx_zlog_category *dl_inner_zlog_category;
extern uint32_t dl_inner_zlog_level;

#define DL_LOG(kind, ...) DL_ZLOG_WRITE(dl_inner_zlog_category, dl_inner_zlog_level, kind, __func__, __VA_ARGS__)
#define DL_ERROR(...) DL_LOG(dl_zlog_error, __VA_ARGS__)
#define DL_WARN(...) DL_LOG(dl_zlog_warn, __VA_ARGS__)
#define DL_INFO(...) DL_LOG(dl_zlog_info, __VA_ARGS__)
#define DL_DEBUG(...) DL_LOG(dl_zlog_debug, __VA_ARGS__)
