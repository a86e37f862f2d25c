#include "tests/verified_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <stdexcept>

#include "platform/errno_exception.h"
#include "platform/posix_helpers.h"
#include "platform/unique_fd.h"
#include "tests/data_block.h"

namespace {

constexpr mode_t kFileMode = 0777;

}  // namespace

VerifiedFile::VerifiedFile(const std::string& path, uint64_t initial_size, uint64_t chunk_length,
                           bool remove_when_done)
    : m_path(path), m_chunk_length(chunk_length), m_remove_when_done(remove_when_done) {
  m_data = MakeDataBlock(static_cast<uint32_t>(random()), chunk_length);
  UniqueFd fd(open64(m_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kFileMode));
  if (!fd.IsOpen()) throw ErrnoException(errno, m_path);
  WritePieces(fd.Get(), initial_size);
  m_size += static_cast<int64_t>(initial_size);
}

VerifiedFile::~VerifiedFile() noexcept(false) {
  if (std::uncaught_exceptions() != 0) return;  // leave the file for inspection
  Verify();
  if (m_remove_when_done && unlink(m_path.c_str()) != 0) throw ErrnoException(errno);
}

void VerifiedFile::WritePieces(int fd, uint64_t length) const {
  if (length != 0 && m_chunk_length == 0)
    throw std::invalid_argument(fmt::format("Cannot write {} bytes in chunks of 0", length));
  uint64_t written = 0;
  while (written < length) {
    const uint64_t piece = std::min(m_chunk_length, length - written);
    write_all_throw(fd, m_data.data(), piece);
    written += piece;
  }
}

void VerifiedFile::Append(uint64_t length) {
  UniqueFd fd(open64(m_path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  if (!fd.IsOpen()) throw ErrnoException(errno, m_path);
  WritePieces(fd.Get(), length);
  m_size += static_cast<int64_t>(length);
}

void VerifiedFile::Verify() {
  struct stat64 info {};
  if (lstat64(m_path.c_str(), &info) != 0)
    throw std::runtime_error(fmt::format("Failed to stat {}", m_path));
  if (info.st_size != m_size)
    throw std::runtime_error(
        fmt::format("Filesize lstat64 of {} incorrect: {} vs {}", m_path, info.st_size, m_size));

  UniqueFd fd(open64(m_path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.IsOpen()) throw ErrnoException(errno, m_path);
  std::vector<unsigned char> buffer(m_chunk_length);
  const uint64_t size = static_cast<uint64_t>(m_size);
  uint64_t position = 0;
  while (position < size) {
    const uint64_t n = std::min(size - position, m_chunk_length);
    if (n == 0) break;  // a chunk length of 0 can read nothing
    // A short count (end of file) is not looked at: a file that shrank after
    // the lstat64 shows up as a compare failure against stale buffer bytes.
    read_all_throw(fd.Get(), buffer.data(), n);
    for (uint64_t i = 0; i < n; ++i) {
      if (buffer[i] != m_data[i])
        throw std::runtime_error(fmt::format("Data compare failed at {}: {:02x} vs {:02x}",
                                             position + i, unsigned{m_data[i]},
                                             unsigned{buffer[i]}));
    }
    position += n;
  }
  if (position != size)
    throw std::runtime_error(
        fmt::format("Filesize read of {} incorrect: {}  vs {}", m_path, position, m_size));
}
