#include "cli/seed_random.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "platform/assertion_report.h"
#include "platform/errno_exception.h"
#include "platform/posix_helpers.h"
#include "platform/unique_fd.h"

namespace {

// Microseconds since the epoch; a clock that cannot be read is a broken
// platform and stops the program through the assertion reporter.
uint64_t MicrosecondsSinceEpoch() {
  timeval now{};
  if (gettimeofday(&now, nullptr) != 0) {
    const int error = errno;
    constexpr const char* kFormat = "Unable to read system clock: ({}) {}\n";
    try {
      fmt::print(stderr, kFormat, error, strerror(error));
    } catch (const std::exception& e) {
      fmt::print(stderr, "Message '{}' threw '{}'\n", kFormat, e.what());
    }
    ReportAssertion(__FILE__, __LINE__, __PRETTY_FUNCTION__, "false");
    abort();
  }
  const uint64_t nanoseconds = static_cast<uint64_t>(now.tv_sec) * 1000000000ULL +
                               static_cast<uint64_t>(now.tv_usec) * 1000ULL;
  return nanoseconds / 1000;
}

}  // namespace

void SeedRandom() {
  UniqueFd urandom(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
  if (urandom.Get() < 0) throw ErrnoException(errno, "/dev/urandom");
  uint32_t word = 0;
  read_all_throw(urandom.Get(), &word, sizeof word);
  const uint64_t micros = MicrosecondsSinceEpoch();
  const uint32_t seed = word ^ static_cast<uint32_t>(micros) ^ static_cast<uint32_t>(micros >> 32);
  srand(seed);
}
