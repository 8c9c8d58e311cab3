// The platform's own diagnostics, on a log channel of their own: category "ko_platform", level file
// /var/tmp/ko_platform.zlog with the same numbers as the daemon's; 2 (errors and warnings) without the file.
#pragma once

#include <cstdint>

#include "vx_zlog.h"

namespace ko_platform {

// Whether the channel admits `level` (VX_ZLOG_...).
bool log_enabled(int level) noexcept;

void log_write(int level, const char *file, const char *func, int line, const char *format, ...) noexcept
    __attribute__((format(printf, 5, 6)));

}  // namespace ko_platform

#define PLATFORM_LOG(level, ...)                                                                                   \
  do {                                                                                                             \
    if (ko_platform::log_enabled(level)) ko_platform::log_write(level, __FILE__, __func__, __LINE__, __VA_ARGS__); \
  } while (false)
#define PLATFORM_ERROR(...) PLATFORM_LOG(VX_ZLOG_ERROR, __VA_ARGS__)
#define PLATFORM_WARN(...) PLATFORM_LOG(VX_ZLOG_WARN, __VA_ARGS__)
#define PLATFORM_INFO(...) PLATFORM_LOG(VX_ZLOG_INFO, __VA_ARGS__)
