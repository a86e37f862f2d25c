// The program's own definitions of glibc's assertion entry points, so that
// every assert() of the tool goes through the kernel-log reporter. Linked
// ahead of the C library, these replace glibc's versions. An exception
// escaping the report ends the process through std::terminate, as the
// declarations are noexcept (glibc declares them noreturn).

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "platform/assertion_report.h"

extern "C" {

void __assert_fail(const char* expression, const char* file, unsigned int line,
                   const char* function) noexcept {
  ReportAssertion(file, line, function, expression);
  abort();
}

void __assert_perror_fail(int error_number, const char* file, unsigned int line,
                          const char* function) noexcept {
  ReportAssertion(file, line, function, strerror(error_number));
  abort();
}

void __assert(const char* expression, const char* file, int line) noexcept {
  ReportAssertion(file, static_cast<unsigned>(line), "UNKNOWN", expression);
  abort();
}

}  // extern "C"
