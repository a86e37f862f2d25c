#pragma once

#include <cstddef>

#include "campaign/power/write_log.h"

// Applies entries [from, to) of `log` (read from `log_fd`) in their order
// onto `target_fd`, a copy of the device as it was when logging began, or
// as an earlier replay left it: writes copy their data from the log,
// discards write zeros, flushes and marks change nothing. Throws
// std::invalid_argument for a range outside the log, ErrnoException when
// reading or writing fails.
void Replay(const WriteLog& log, int log_fd, int target_fd, size_t from, size_t to);
