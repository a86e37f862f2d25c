#include "campaign/machine/user_image.h"

#include <fcntl.h>
#include <lzma.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

#include "campaign/machine/interrupt.h"
#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

constexpr size_t kChunk = 1 << 20;
constexpr uint8_t kGzipMagic[] = {0x1f, 0x8b};
constexpr uint8_t kXzMagic[] = {0xfd, '7', 'z', 'X', 'Z', 0x00};

UniqueFd OpenForReading(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.IsOpen()) throw ErrnoException(errno, path);
  return fd;
}

// Reads up to `count` bytes, fewer only at the end of the file.
size_t ReadFully(int fd, uint8_t* at, size_t count, const std::string& path) {
  size_t got = 0;
  while (got < count) {
    const ssize_t n = read(fd, at + got, count - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw ErrnoException(errno, path);
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return got;
}

template <size_t N>
bool StartsWith(const std::vector<uint8_t>& bytes, const uint8_t (&magic)[N]) {
  return bytes.size() >= N && std::equal(magic, magic + N, bytes.begin());
}

// Closes what gzdopen opened, the descriptor with it.
struct GzipFile {
  gzFile file;
  ~GzipFile() {
    if (file != nullptr) gzclose(file);
  }
};

struct XzStream {
  lzma_stream stream = LZMA_STREAM_INIT;
  ~XzStream() { lzma_end(&stream); }
};

}  // namespace

UserImage::UserImage(std::string path) : m_path(std::move(path)) {
  const UniqueFd fd = OpenForReading(m_path);
  std::vector<uint8_t> start(sizeof kXzMagic);
  start.resize(ReadFully(fd.Get(), start.data(), start.size(), m_path));
  m_kind = StartsWith(start, kXzMagic) ? Kind::kXz : StartsWith(start, kGzipMagic) ? Kind::kGzip : Kind::kRaw;
}

const char* UserImage::Format() const {
  return m_kind == Kind::kXz ? "xz" : m_kind == Kind::kGzip ? "gzip" : "raw";
}

template <typename Sink>
void UserImage::Stream(Sink sink) const {
  UniqueFd fd = OpenForReading(m_path);
  std::vector<uint8_t> out(kChunk);
  if (m_kind == Kind::kRaw) {
    for (;;) {
      ThrowIfInterrupted();
      const size_t n = ReadFully(fd.Get(), out.data(), out.size(), m_path);
      if (n == 0 || !sink(out.data(), n)) return;
    }
  }
  if (m_kind == Kind::kGzip) {
    const int copy = dup(fd.Get());  // gzclose closes the descriptor it was given
    GzipFile gzip{copy < 0 ? nullptr : gzdopen(copy, "rb")};
    if (gzip.file == nullptr) {
      if (copy >= 0) close(copy);
      throw ErrnoException(ENOMEM, m_path);
    }
    for (;;) {
      ThrowIfInterrupted();
      const int n = gzread(gzip.file, out.data(), static_cast<unsigned>(out.size()));
      int code = Z_OK;
      const char* error = gzerror(gzip.file, &code);
      if (n < 0 || (code != Z_OK && code != Z_STREAM_END))
        throw std::runtime_error(m_path + (code == Z_BUF_ERROR ? ": the gzip data is cut short"
                                                               : std::string(": the gzip data is corrupt (") + error + ")"));
      if (n == 0 || !sink(out.data(), static_cast<size_t>(n))) return;
    }
  }
  XzStream xz;
  if (lzma_stream_decoder(&xz.stream, UINT64_MAX, LZMA_CONCATENATED) != LZMA_OK)
    throw std::runtime_error(m_path + ": the xz decoder could not start");
  std::vector<uint8_t> in(kChunk);
  bool input_ended = false;
  for (;;) {
    ThrowIfInterrupted();
    if (xz.stream.avail_in == 0 && !input_ended) {
      xz.stream.next_in = in.data();
      xz.stream.avail_in = ReadFully(fd.Get(), in.data(), in.size(), m_path);
      input_ended = xz.stream.avail_in == 0;
    }
    xz.stream.next_out = out.data();
    xz.stream.avail_out = out.size();
    const lzma_ret ret = lzma_code(&xz.stream, input_ended ? LZMA_FINISH : LZMA_RUN);
    const size_t n = out.size() - xz.stream.avail_out;
    if (n != 0 && !sink(out.data(), n)) return;
    if (ret == LZMA_STREAM_END) return;
    if (ret == LZMA_BUF_ERROR) throw std::runtime_error(m_path + ": the xz data is cut short");
    if (ret != LZMA_OK)
      throw std::runtime_error(m_path + ": the xz data is corrupt (liblzma error " +
                               std::to_string(static_cast<int>(ret)) + ")");
  }
}

uint64_t UserImage::Measure(uint64_t most) const {
  if (m_kind == Kind::kRaw) {
    struct stat info {};
    if (stat(m_path.c_str(), &info) != 0) throw ErrnoException(errno, m_path);
    return static_cast<uint64_t>(info.st_size);
  }
  uint64_t bytes = 0;
  Stream([&](const uint8_t*, size_t n) {
    bytes += n;
    return bytes <= most;
  });
  return bytes;
}

void UserImage::CopyTo(const std::string& device, bool zeroed) const {
  UniqueFd out(open(device.c_str(), O_WRONLY | O_CLOEXEC));
  if (!out.IsOpen()) throw ErrnoException(errno, device);
  uint64_t at = 0;
  Stream([&](const uint8_t* bytes, size_t n) {
    if (!zeroed || std::any_of(bytes, bytes + n, [](uint8_t byte) { return byte != 0; }))
      for (size_t done = 0; done < n;) {
        const ssize_t wrote = pwrite(out.Get(), bytes + done, n - done, static_cast<off_t>(at + done));
        if (wrote <= 0) throw ErrnoException(wrote < 0 ? errno : EIO, device);
        done += static_cast<size_t>(wrote);
      }
    at += n;
    return true;
  });
  if (fsync(out.Get()) != 0) throw ErrnoException(errno, device);
}
