#include "tests/truncate.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "platform/errno_exception.h"
#include "platform/log_message.h"
#include "platform/posix_helpers.h"
#include "platform/unique_fd.h"

namespace {

constexpr mode_t kMode = 0777;
constexpr unsigned char kFill = 0x2A;
constexpr int64_t kLargestRound = 8388608;  // 2^23
constexpr int64_t kShrinkTo = 7340032;      // 7 MiB
constexpr int64_t kCutTo = 373;
constexpr char kText[] = "TestString";  // written with its terminating zero
constexpr int64_t kFarOffset = 14680064;  // 14 MiB

UniqueFd Open(const std::string& path, int flags) {
  UniqueFd fd(open64(path.c_str(), flags | O_CLOEXEC, kMode));
  if (!fd.IsOpen()) throw ErrnoException(errno, path);
  return fd;
}

void Truncate(int fd, int64_t size) {
  if (ftruncate64(fd, size) != 0) throw ErrnoException(errno, "ftruncate64");
}

int64_t SizeOf(int fd, const std::string& path) {
  struct stat64 info {};
  if (fstat64(fd, &info) != 0) throw std::runtime_error(fmt::format("Failed to fstat64 {}", path));
  return info.st_size;
}

// The size must be `expected`; the message shows `shown`, which for the
// half-size check is the whole round size.
void CheckSize(int fd, const std::string& path, int64_t expected, int64_t shown) {
  const int64_t size = SizeOf(fd, path);
  if (size != expected)
    throw std::runtime_error(
        fmt::format("Truncate fstat64 of {} incorrect: {} vs {}", path, size, shown));
}

// One zero-fill round; returns whether the regained half read back as zeros
// and the kept half unchanged.
bool ZeroFillRound(const std::string& path, int64_t round_size) {
  const int64_t half = round_size / 2;
  std::vector<unsigned char> buffer(static_cast<size_t>(round_size), kFill);
  {
    UniqueFd fd = Open(path, O_WRONLY | O_CREAT);
    write_all_throw(fd.Get(), buffer.data(), buffer.size());
    fsync(fd.Get());
  }
  {
    UniqueFd fd = Open(path, O_WRONLY | O_CREAT);
    Truncate(fd.Get(), half);
    CheckSize(fd.Get(), path, half, round_size);
  }
  UniqueFd fd = Open(path, O_RDWR | O_CREAT);
  Truncate(fd.Get(), round_size);
  CheckSize(fd.Get(), path, round_size, round_size);
  read_all_throw(fd.Get(), buffer.data(), buffer.size());

  int32_t low_zero = 0, low_unmodified = 0, high_zero = 0, high_unmodified = 0;
  for (int64_t i = 0; i < half; ++i) {
    const unsigned char low = buffer[static_cast<size_t>(i)];
    const unsigned char high = buffer[static_cast<size_t>(half + i)];
    low_zero += low == 0;
    low_unmodified += low == kFill;
    high_zero += high == 0;
    high_unmodified += high == kFill;
  }
  const int32_t h = static_cast<int32_t>(half);
  LogMessage("Low half: %d zero bytes, %d unmodified bytes, %d other bytes\n", low_zero,
             low_unmodified, h - low_zero - low_unmodified);
  LogMessage("High half: %d zero bytes, %d unmodified bytes, %d other bytes\n", high_zero,
             high_unmodified, h - high_zero - high_unmodified);
  return low_zero == 0 && low_unmodified == h && high_zero == h && high_unmodified == 0;
}

void RunSteps(const std::string& path) {
  bool all_good = true;
  // Every round runs and prints, even after one has failed.
  for (int64_t round_size = 2; round_size <= kLargestRound; round_size *= 2)
    if (!ZeroFillRound(path, round_size)) all_good = false;
  if (!all_good) throw std::runtime_error("Failed truncate zero test");

  {
    UniqueFd fd = Open(path, O_WRONLY | O_CREAT);
    Truncate(fd.Get(), kShrinkTo);
    CheckSize(fd.Get(), path, kShrinkTo, kShrinkTo);
    Truncate(fd.Get(), kCutTo);
    CheckSize(fd.Get(), path, kCutTo, kCutTo);
  }
  struct stat64 info {};
  const int64_t appended = kCutTo + static_cast<int64_t>(sizeof kText);
  {
    UniqueFd fd = Open(path, O_WRONLY | O_APPEND);
    write_all_throw(fd.Get(), kText, sizeof kText);
    // Only a wrong size fails here; a failing fstat64 is passed over.
    if (fstat64(fd.Get(), &info) == 0 && info.st_size != appended)
      throw std::runtime_error(
          fmt::format("Truncate fstat64 of {} incorrect: {} vs {}", path, info.st_size, appended));
  }
  const int64_t far_end = kFarOffset + static_cast<int64_t>(sizeof kText);
  UniqueFd fd = Open(path, O_WRONLY);
  if (lseek64(fd.Get(), kFarOffset, SEEK_SET) < 0)
    throw std::runtime_error(fmt::format("Truncate fseek of {} failed", path));
  write_all_throw(fd.Get(), kText, sizeof kText);
  if (fstat64(fd.Get(), &info) == 0 && info.st_size != far_end)
    throw std::runtime_error(fmt::format("Truncate lseek64/fstat64 of {} incorrect: {} vs {}", path,
                                         info.st_size, far_end));
}

}  // namespace

void TruncateTest(const std::string& directory) {
  LogMessage("Truncate test\n");
  try {
    RunSteps(directory + "truncfile");
  } catch (const std::exception& e) {
    LogMessage("Truncate test failed: %s\n", e.what());
    throw std::exception();
  }
}
