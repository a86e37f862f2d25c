#pragma once

#include <cstddef>
#include <cstdint>

// Reads until `length` bytes are in or the descriptor reaches end of file.
// Returns the count read (short only at end of file). Any failing read,
// EINTR included, throws ErrnoException(errno, "read_all_throw").
uint64_t read_all_throw(int fd, void* buffer, size_t length);

// Writes all `length` bytes, looping over short writes. A failing write
// throws ErrnoException(errno); a write that makes no progress is a broken
// invariant and aborts through the assertion reporter.
void write_all_throw(int fd, const void* buffer, size_t length);
