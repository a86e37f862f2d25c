#include "campaign/machine/volume_copy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

constexpr size_t kBlock = 64 * 1024;

void CopyBlocks(int from, int to, uint64_t bytes, const std::string& device, const std::string& path) {
  std::vector<char> block(kBlock);
  for (uint64_t at = 0; at < bytes;) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(kBlock, bytes - at));
    const ssize_t got = pread(from, block.data(), want, static_cast<off_t>(at));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) throw ErrnoException(got < 0 ? errno : EIO, device);
    const size_t n = static_cast<size_t>(got);
    if (std::any_of(block.begin(), block.begin() + got, [](char c) { return c != 0; })) {
      const ssize_t put = pwrite(to, block.data(), n, static_cast<off_t>(at));
      if (put != got) throw ErrnoException(put < 0 ? errno : EIO, path);
    }
    at += n;
  }
  if (ftruncate(to, static_cast<off_t>(bytes)) != 0 || fsync(to) != 0) throw ErrnoException(errno, path);
}

}  // namespace

void CopyVolume(const std::string& device, uint64_t bytes, const std::string& path) {
  UniqueFd from(open(device.c_str(), O_RDONLY | O_CLOEXEC));
  if (!from.IsOpen()) throw ErrnoException(errno, device);
  UniqueFd to(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!to.IsOpen()) throw ErrnoException(errno, path);
  try {
    CopyBlocks(from.Get(), to.Get(), bytes, device, path);
    if (to.Reset() != 0) throw ErrnoException(errno, path);
  } catch (...) {
    unlink(path.c_str());
    throw;
  }
}
