#include "platform_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ko_platform {
namespace {

uint32_t read_level(const char *name, uint32_t default_level) noexcept {
  char path[64];
  std::snprintf(path, sizeof(path), "/var/tmp/%s.zlog", name);
  const int file = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (file < 0) return default_level;
  char text[4096] = {};  // as much of the file as is looked at for the daemon's channels
  struct stat status;
  const bool regular = fstat(file, &status) == 0 && S_ISREG(status.st_mode);
  const ssize_t length = regular ? read(file, text, sizeof(text) - 1) : -1;
  close(file);
  int level = 0;
  if (length <= 0 || std::sscanf(text, "%d", &level) != 1) return default_level;
  return static_cast<uint32_t>(level);
}

uint32_t threshold(int level) {
  if (level >= VX_ZLOG_ERROR) return 1;
  if (level >= VX_ZLOG_WARN) return 2;
  return level >= VX_ZLOG_INFO ? 4 : 5;
}

}  // namespace

bool log_channel::enabled(int level) noexcept {
  if (!is_level_read_) level_ = read_level(name_, level_);
  is_level_read_ = true;
  return level_ >= threshold(level);
}

void log_channel::write(int level, const char *file, const char *func, int line, const char *format, ...) noexcept {
  if (category_ == nullptr) category_ = vx_zlog_init(name_);
  if (category_ == nullptr) return;
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  vxdf_zlog(category_, file, std::strlen(file), func, std::strlen(func), line, level, "%s", text);
}

}  // namespace ko_platform
