#pragma once

// printf-style print to standard error: no prefix, no added line end.
void LogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
