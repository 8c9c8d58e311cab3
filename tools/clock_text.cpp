#include "clock_text.h"

#include <cstdio>
#include <ctime>

namespace lspanctl {

std::string now_text(bool full) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tm local;
  localtime_r(&now.tv_sec, &local);
  char text[32];
  const size_t length = std::strftime(text, sizeof text, full ? "%FT%T" : "%T", &local);
  std::snprintf(text + length, sizeof text - length, ".%03ld", now.tv_nsec / 1000000);
  return text;
}

}  // namespace lspanctl
