#include "campaign/machine/sector_snapshot.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

constexpr size_t kSector = 512;
constexpr size_t kReadBytes = 1 << 20;

// FNV-1a over 8-byte words: not for adversaries, only to tell sectors apart.
uint64_t Hash(const unsigned char* sector) {
  uint64_t hash = 0xcbf29ce484222325ull;
  for (size_t at = 0; at < kSector; at += 8) {
    uint64_t word;
    memcpy(&word, sector + at, sizeof word);
    hash = (hash ^ word) * 0x100000001b3ull;
  }
  return hash;
}

}  // namespace

SectorSnapshot::SectorSnapshot(const std::string& device) {
  UniqueFd fd(open(device.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.IsOpen()) throw ErrnoException(errno, device);
  std::vector<unsigned char> buffer(kReadBytes);
  for (;;) {
    const ssize_t n = read(fd.Get(), buffer.data(), buffer.size());
    if (n < 0) throw ErrnoException(errno, device);
    if (n == 0) break;
    for (size_t at = 0; at + kSector <= static_cast<size_t>(n); at += kSector) m_hashes.push_back(Hash(&buffer[at]));
  }
}

std::vector<uint64_t> SectorSnapshot::ChangedSince(const SectorSnapshot& before) const {
  std::vector<uint64_t> changed;
  for (size_t sector = 0; sector < m_hashes.size(); ++sector)
    if (sector >= before.m_hashes.size() || m_hashes[sector] != before.m_hashes[sector]) changed.push_back(sector);
  return changed;
}
