// Diagnostics of the platform and of programs that use it. Each channel is a log category with a level of its own.
#pragma once

#include <cstdint>

#include "vx_zlog.h"

namespace ko_platform {

// The category `name`, and the level in the file /var/tmp/<name>.zlog, with the same numbers as the daemon's channels.
// Both are looked for at the first message.
class log_channel {
 public:
  // `name` is borrowed. `level` holds when there is no file.
  constexpr log_channel(const char *name, uint32_t level) : name_(name), level_(level) {}

  // Whether the channel admits `level` (VX_ZLOG_...).
  bool enabled(int level) noexcept;

  void write(int level, const char *file, const char *func, int line, const char *format, ...) noexcept
      __attribute__((format(printf, 6, 7)));

 private:
  const char *name_;
  uint32_t level_;
  bool is_level_read_ = false;
  vx_zlog_category *category_ = nullptr;
};

// The platform's own: errors and warnings.
inline log_channel platform_channel{"ko_platform", 2};

}  // namespace ko_platform

#define KO_CHANNEL_LOG(channel, level, ...)                                                          \
  do {                                                                                               \
    if ((channel).enabled(level)) (channel).write(level, __FILE__, __func__, __LINE__, __VA_ARGS__); \
  } while (false)
#define PLATFORM_LOG(level, ...) KO_CHANNEL_LOG(ko_platform::platform_channel, level, __VA_ARGS__)
#define PLATFORM_ERROR(...) PLATFORM_LOG(VX_ZLOG_ERROR, __VA_ARGS__)
#define PLATFORM_WARN(...) PLATFORM_LOG(VX_ZLOG_WARN, __VA_ARGS__)
#define PLATFORM_DEBUG(...) PLATFORM_LOG(VX_ZLOG_DEBUG, __VA_ARGS__)
#define PLATFORM_INFO(...) PLATFORM_LOG(VX_ZLOG_INFO, __VA_ARGS__)
