#pragma once

// Reports a failed assertion to the kernel log ("/dev/kmsg"), or to standard
// error when the kernel log cannot be opened. The caller aborts afterwards.
void ReportAssertion(const char* file, unsigned line, const char* function,
                     const char* expression);

// As ReportAssertion, with a printf-style message between the two lines.
void ReportAssertionMessage(const char* file, unsigned line, const char* function,
                            const char* expression, const char* format, ...)
    __attribute__((format(printf, 5, 6)));
