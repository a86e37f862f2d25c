#include "campaign/machine/scratch_store.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cctype>
#include <cstdlib>

#include "platform/errno_exception.h"

namespace {

// Less room than this left for a sparse image, and a row's writes may not
// have found room.
constexpr uint64_t kLeastFree = 1 << 20;

}  // namespace

ScratchStore::ScratchStore(std::string path, UniqueFd fd, uint64_t size, bool image)
    : m_path(std::move(path)), m_fd(std::move(fd)), m_size(size), m_image(image) {}

std::unique_ptr<ScratchStore> ScratchStore::CreateImage(const std::string& path, uint64_t size) {
  UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd.IsOpen()) throw ErrnoException(errno, path);
  std::unique_ptr<ScratchStore> store(new ScratchStore(path, std::move(fd), size, true));
  store->Allocate();
  return store;
}

void ScratchStore::Allocate() {
  if (ftruncate(m_fd.Get(), static_cast<off_t>(m_size)) != 0) throw ErrnoException(errno, m_path);
  // Taken up front, so that a row's writes cannot find the filesystem full;
  // where the filesystem cannot do so, the image stays sparse.
  if (fallocate(m_fd.Get(), 0, 0, static_cast<off_t>(m_size)) != 0 && errno != EOPNOTSUPP) {
    const int error = errno;
    struct statvfs info {};
    const uint64_t free = fstatvfs(m_fd.Get(), &info) == 0 ? uint64_t{info.f_bavail} * info.f_frsize : 0;
    throw ErrnoException(error, m_path + " (" + FormatSize(m_size) + ", with " + std::to_string(free >> 20) +
                                    " MiB free beside it)");
  }
}

std::unique_ptr<ScratchStore> ScratchStore::OpenDevice(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
  if (!fd.IsOpen()) throw ErrnoException(errno, path);
  uint64_t size = 0;
  if (ioctl(fd.Get(), BLKGETSIZE64, &size) != 0) throw ErrnoException(errno, path);
  return std::unique_ptr<ScratchStore>(new ScratchStore(path, std::move(fd), size, false));
}

ScratchStore::~ScratchStore() {
  if (m_image && !m_keep) unlink(m_path.c_str());
}

std::unique_ptr<LoopDevice> ScratchStore::FreshVolume(uint64_t size) {
  if (m_image) {
    if (ftruncate(m_fd.Get(), 0) != 0) throw ErrnoException(errno, m_path);
    Allocate();
  }
  return std::make_unique<LoopDevice>(m_fd.Get(), size, !m_image);
}

std::unique_ptr<LoopDevice> ScratchStore::Region(uint64_t offset, uint64_t size) {
  return std::make_unique<LoopDevice>(m_fd.Get(), size, !m_image, offset);
}

std::string ScratchStore::Trouble() const {
  struct statvfs info {};
  if (!m_image || fstatvfs(m_fd.Get(), &info) != 0) return "";
  const uint64_t free = uint64_t{info.f_bavail} * info.f_frsize;
  if (free >= kLeastFree) return "";
  return "the filesystem holding " + m_path + " is full (" + std::to_string(free / 1024) + " KiB free)";
}

void ScratchStore::DropCaches() const {
  if (!m_image) ioctl(m_fd.Get(), BLKFLSBUF, 0);
}

uint64_t ParseSize(const std::string& text) {
  const size_t digits = text.find_first_not_of("0123456789");
  if (digits == 0 || digits == std::string::npos || digits + 1 != text.size() || digits > 15) return 0;
  const size_t unit = std::string("KMGT").find(static_cast<char>(toupper(static_cast<unsigned char>(text.back()))));
  if (unit == std::string::npos) return 0;
  const unsigned shift = 10 * (static_cast<unsigned>(unit) + 1);
  const uint64_t number = std::stoull(text.substr(0, digits));
  return number > (~uint64_t{0} >> shift) ? 0 : number << shift;
}

std::string FormatSize(uint64_t bytes) {
  for (const auto& [shift, unit] : {std::pair{30, "G"}, {20, "M"}, {10, "K"}})
    if (bytes != 0 && bytes % (uint64_t{1} << shift) == 0) return std::to_string(bytes >> shift) + unit;
  return std::to_string(bytes);
}
