#include "platform/assertion_report.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>

namespace {

constexpr const char* kKernelLog = "/dev/kmsg";

}  // namespace

void ReportAssertion(const char* file, unsigned line, const char* function,
                     const char* expression) {
  if (FILE* log = fopen(kKernelLog, "w")) {
    // "<2>" is the kernel log's critical level.
    fprintf(log, "<2>User space assert from process %d: %s\n", getpid(), expression);
    fprintf(log, "ASSERT Executing %s:%u:%s\n", file, line, function);
    fclose(log);
    return;
  }
  fflush(stdout);
  fprintf(stderr, "\r\nASSERT FAILED: %s", expression);
  fprintf(stderr, "\r\n%s:%u:%s\r\n", file, line, function);
  fprintf(stderr, "\r\n");
}

void ReportAssertionMessage(const char* file, unsigned line, const char* function,
                            const char* expression, const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (FILE* log = fopen(kKernelLog, "w")) {
    fprintf(log, "<2>User space assert from %d: %s\n", getpid(), expression);
    vfprintf(log, format, args);
    fprintf(log, "ASSERT Executing %s:%u:%s\n", file, line, function);
    fclose(log);
  } else {
    fflush(stdout);
    fprintf(stderr, "\r\nASSERT FAILED: %s\r\n", expression);
    vfprintf(stderr, format, args);
    fprintf(stderr, "\r\n%s:%u:%s\r\n", file, line, function);
    fprintf(stderr, "\r\n");
  }
  va_end(args);
}
