#include "platform/log_message.h"

#include <cstdarg>
#include <cstdio>

void LogMessage(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
}
