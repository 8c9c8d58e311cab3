// Start-up steps that open the two log channels: the start-up module's own, and the application's.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "001_init_a/dl_init.h"
#include "001_init_a/dl_zlog.h"
#include "ko_status.h"

vx_zlog_category *dl_inner_zlog_category = nullptr;
uint32_t dl_inner_zlog_level = 1;

namespace {

constexpr size_t level_text_size = 4096;  // bytes of a level file that are read, with a NUL

// Reads the start of a level file into the zeroed `text`; false when it cannot be opened. Anyone may create files in
// that directory: without O_NONBLOCK a FIFO of that name would block start-up forever, and without the limit a gigabyte
// of blanks or digits would cost seconds and memory.
bool read_level_file(const char *path, char (&text)[level_text_size]) {
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return false;
  if (read(fd, text, sizeof(text) - 1) < 0) text[0] = '\0';
  close(fd);
  return true;
}

}  // namespace

int32_t dl_init_inner_zlog(dl_init_arg_t *) {
  static uint8_t ready = 0;
  if (ready != 0) return 0;
  const dl_init_in_t in = {"dl"};
  dl_init_out_t out = {};
  out.zlog_category = vx_zlog_init(in.zlog_conf);
  if (out.zlog_category == nullptr) {
    const int32_t rv = dl_get_zlog_category(&in);
    DL_ERROR("\033[31m<init> init inner zlog failed, rv = %d.\033[0m", rv);
    return rv;
  }
  dl_get_zlog_level(&in, &out.zlog_level);
  dl_inner_zlog_level = out.zlog_level;
  ready = 1;
  dl_inner_zlog_category = out.zlog_category;
  DL_INFO("\033[32m<init> inner zlog level is %d.\033[0m", dl_inner_zlog_level);
  return 0;
}

int32_t dl_init_zlog(dl_init_arg_t *arg) {
  const dl_init_in_t *in = arg->in;
  if (in->zlog_conf == nullptr) {
    DL_ERROR("\033[31m<init> zlog_conf is (NULL).\033[0m");
    return ko_status_invalid;
  }
  arg->out->zlog_category = vx_zlog_init(in->zlog_conf);
  if (arg->out->zlog_category == nullptr) {
    const int32_t rv = dl_get_zlog_category(in);
    DL_ERROR("\033[31m<init> init zlog %s failed, rv = %d.\033[0m", in->zlog_conf, rv);
    return rv;
  }
  dl_get_zlog_level(in, &arg->out->zlog_level);
  DL_INFO("\033[32m<init> init zlog %s successfully, level = %d.\033[0m", in->zlog_conf, arg->out->zlog_level);
  return 0;
}

void dl_get_zlog_level(const dl_init_in_t *in, uint32_t *level) {
  *level = 1;
  char path[dl_name_size];
  std::snprintf(path, sizeof(path), "/var/tmp/%.64s.zlog", in->zlog_conf);
  char text[level_text_size] = {};
  if (!read_level_file(path, text)) {
    DL_WARN("\033[33m<init> open %s failed.\033[0m", path);
    return;
  }
  int number = 0;
  if (std::sscanf(text, "%d", &number) == 1) *level = static_cast<uint32_t>(number);
}

int32_t dl_get_zlog_category(const dl_init_in_t *in) {
  DL_ERROR("\033[31m<init> init zlog %s failed.\033[0m", in->zlog_conf);
  return ko_status_unavailable;
}
