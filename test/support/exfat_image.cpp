#include "exfat_image.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

#include "process.h"

namespace testsupport {
namespace {

struct Fd {
  int fd;
  explicit Fd(int f) : fd(f) {}
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

}  // namespace

void MakeExfatImage(const std::string& path, uint64_t bytes, uint32_t cluster_bytes,
                    const std::string& label) {
  {
    Fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (fd.fd < 0 || ftruncate(fd.fd, static_cast<off_t>(bytes)) != 0)
      throw std::runtime_error("cannot create image " + path);
  }
  std::vector<std::string> argv{"mkfs.exfat"};
  if (cluster_bytes != 0) {
    argv.push_back("-c");
    argv.push_back(std::to_string(cluster_bytes));
  }
  if (!label.empty()) {
    argv.push_back("-L");
    argv.push_back(label);
  }
  argv.push_back(path);
  ProcessResult r = RunProcess(argv);
  if (r.exit_status != 0) throw std::runtime_error("mkfs.exfat failed: " + r.out + r.err);
}

std::vector<uint8_t> ReadFileBytes(const std::string& path) {
  Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.fd < 0) throw std::runtime_error("cannot open " + path);
  off_t size = lseek(fd.fd, 0, SEEK_END);
  return ReadBytes(path, 0, static_cast<size_t>(size));
}

std::vector<uint8_t> ReadBytes(const std::string& path, uint64_t offset, size_t length) {
  Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.fd < 0) throw std::runtime_error("cannot open " + path);
  std::vector<uint8_t> bytes(length);
  size_t done = 0;
  while (done < length) {
    ssize_t n = pread(fd.fd, bytes.data() + done, length - done, static_cast<off_t>(offset + done));
    if (n <= 0) throw std::runtime_error("short read from " + path);
    done += static_cast<size_t>(n);
  }
  return bytes;
}

void WriteBytes(const std::string& path, uint64_t offset, const std::vector<uint8_t>& bytes) {
  Fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (fd.fd < 0) throw std::runtime_error("cannot open " + path);
  if (pwrite(fd.fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)) !=
      static_cast<ssize_t>(bytes.size()))
    throw std::runtime_error("short write to " + path);
}

FsckVerdict CheckImage(const std::string& path) {
  ProcessResult r = RunProcess({"fsck.exfat", "-n", path});
  return FsckVerdict{r.exit_status, r.out + r.err};
}

}  // namespace testsupport
