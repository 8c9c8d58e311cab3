// The logging wrappers on zlog: outputs and formats come from its configuration, a category that has no rule there
// writes nothing.
#include <zlog.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "log/last_error.h"
#include "log/line.h"
#include "platform_config.h"
#include "standard_files.h"
#include "vx_zlog.h"

namespace {

bool start_zlog() {
  ko_platform::hold_standard_files();
  const std::string configured = ko_platform::process_log_settings().zlog_conf;
  const char *path = configured.empty() ? "/etc/zlog.conf" : configured.c_str();
  if (zlog_init(path) == 0) return true;
  std::fprintf(stderr, "log: zlog cannot use its configuration %s\n", path);
  return false;
}

}  // namespace

vx_zlog_category *vx_zlog_init(const char *category_name) {
  if (category_name == nullptr) return nullptr;
  try {
    static const bool started = start_zlog();
    return started ? reinterpret_cast<vx_zlog_category *>(zlog_get_category(category_name)) : nullptr;
  } catch (...) {
    return nullptr;
  }
}

void vxdf_zlog(vx_zlog_category *category, const char *file, size_t file_len, const char *func, size_t func_len,
               long line, int level, const char *format, ...) {
  if (category == nullptr) return;
  char text[2048];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  if (length < 0) return;
  if (level >= VX_ZLOG_ERROR) ko_platform::note_error(text);
  try {
    std::pmr::string record;
    ko_platform::append_line_text(record, text, false);  // without the line end, for which zlog's format has one
    zlog(reinterpret_cast<zlog_category_t *>(category), file, file_len, func, func_len, line, level, "%s",
         record.c_str());
  } catch (...) {
  }
}
