#include "platform/posix_helpers.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/assertion_report.h"
#include "platform/errno_exception.h"

uint64_t read_all_throw(int fd, void* buffer, size_t length) {
  if (length == 0) return 0;
  auto* bytes = static_cast<unsigned char*>(buffer);
  size_t done = 0;
  while (done < length) {
    ssize_t n = read(fd, bytes + done, length - done);
    if (n < 0) throw ErrnoException(errno, "read_all_throw");
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return done;
}

void write_all_throw(int fd, const void* buffer, size_t length) {
  if (length == 0) return;
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  size_t done = 0;
  while (done < length) {
    ssize_t n = write(fd, bytes + done, length - done);
    if (n < 0) throw ErrnoException(errno);
    if (n == 0) {
      // The report names the helper's home in the platform library, as every
      // build of the tool has always reported it.
      ReportAssertion("lib/platform/posix_helpers", 581,
                      "void write_all_throw(int, const void*, size_t)", "n != 0");
      abort();
    }
    done += static_cast<size_t>(n);
  }
}
