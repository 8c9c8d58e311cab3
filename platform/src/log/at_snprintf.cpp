// The formatting call of the logging wrappers; the same behind every logging library.
#include <cstdarg>
#include <cstdio>

#include "vx_zlog.h"

int at_snprintf(char *buffer, size_t size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(buffer, size, format, args);
  va_end(args);
  if (length < 0 && size != 0) buffer[0] = '\0';
  return length;
}
