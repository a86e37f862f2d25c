#include "campaign/trial/golden_volume.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

constexpr uint64_t kBlock = 64 * 1024;

UniqueFd Open(const std::string& device, int flags) {
  UniqueFd fd(open(device.c_str(), flags | O_CLOEXEC));
  if (!fd.IsOpen()) throw ErrnoException(errno, device);
  return fd;
}

std::vector<uint8_t> ReadBlock(int fd, uint64_t at, uint64_t size, const std::string& device) {
  std::vector<uint8_t> block(size);
  if (pread(fd, block.data(), size, static_cast<off_t>(at)) != static_cast<ssize_t>(size))
    throw ErrnoException(errno ? errno : EIO, device);
  return block;
}

}  // namespace

void GoldenVolume::Capture(const std::string& device, uint64_t bytes) {
  const UniqueFd fd = Open(device, O_RDONLY);
  m_blocks.clear();
  for (uint64_t at = 0; at < bytes; at += kBlock) {
    std::vector<uint8_t> block = ReadBlock(fd.Get(), at, std::min(kBlock, bytes - at), device);
    if (std::any_of(block.begin(), block.end(), [](uint8_t byte) { return byte != 0; })) m_blocks[at] = std::move(block);
  }
  m_bytes = bytes;
}

uint64_t GoldenVolume::Restore(const std::string& device) const {
  const UniqueFd fd = Open(device, O_RDWR);
  uint64_t written = 0;
  for (uint64_t at = 0; at < m_bytes; at += kBlock) {
    const uint64_t size = std::min(kBlock, m_bytes - at);
    const auto golden = m_blocks.find(at);
    const std::vector<uint8_t> wanted = golden == m_blocks.end() ? std::vector<uint8_t>(size) : golden->second;
    if (ReadBlock(fd.Get(), at, size, device) == wanted) continue;
    if (pwrite(fd.Get(), wanted.data(), size, static_cast<off_t>(at)) != static_cast<ssize_t>(size))
      throw ErrnoException(errno ? errno : EIO, device);
    ++written;
  }
  if (fsync(fd.Get()) != 0) throw ErrnoException(errno, device);
  return written;
}
