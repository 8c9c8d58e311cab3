#include "clock_text.h"

#include <cstdio>
#include <ctime>

namespace lspanctl {

std::string now_text(bool full) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tm local;
  localtime_r(&now.tv_sec, &local);
  char text[32], milliseconds[24], offset[8];
  std::strftime(text, sizeof text, full ? "%FT%T" : "%T", &local);
  std::snprintf(milliseconds, sizeof milliseconds, ".%03ld", now.tv_nsec / 1000000);
  std::string all = std::string(text) + milliseconds;
  if (!full) return all;
  std::strftime(offset, sizeof offset, "%z", &local);  // +0200
  return all + std::string(offset, 3) + ":" + (offset + 3);
}

}  // namespace lspanctl
