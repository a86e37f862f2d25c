#include "campaign/machine/loop_device.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "campaign/machine/leftovers.h"
#include "platform/errno_exception.h"

namespace {

// Another program may take the free device between asking and setting up.
constexpr int kAttempts = 20;
constexpr auto kDetachLimit = std::chrono::seconds(10);

// Kernels before 5.8 have no LOOP_CONFIGURE: the device is set up in two calls.
bool ConfigureInTwoCalls(int loop_fd, int backing_fd, const loop_info64& info) {
  if (ioctl(loop_fd, LOOP_SET_FD, backing_fd) != 0) return false;
  if (ioctl(loop_fd, LOOP_SET_STATUS64, &info) == 0) return true;
  const int error = errno;
  ioctl(loop_fd, LOOP_CLR_FD, 0);
  errno = error;
  return false;
}

bool Configure(int loop_fd, int backing_fd, const loop_config& config) {
  if (ioctl(loop_fd, LOOP_CONFIGURE, &config) == 0) return true;
  return (errno == EINVAL || errno == ENOTTY) && ConfigureInTwoCalls(loop_fd, backing_fd, config.info);
}

}  // namespace

LoopDevice::LoopDevice(int backing_fd, uint64_t size, bool direct, uint64_t offset) {
  UniqueFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  if (!control.IsOpen()) throw ErrnoException(errno, "/dev/loop-control");
  loop_config config{};
  config.fd = static_cast<uint32_t>(backing_fd);
  config.info.lo_offset = offset;
  config.info.lo_sizelimit = size;
  config.info.lo_flags = LO_FLAGS_AUTOCLEAR | (direct ? LO_FLAGS_DIRECT_IO : 0);
  for (int attempt = 0;; ++attempt) {
    const int number = ioctl(control.Get(), LOOP_CTL_GET_FREE);
    if (number < 0) throw ErrnoException(errno, "/dev/loop-control");
    m_name = "loop" + std::to_string(number);
    m_path = "/dev/" + m_name;
    m_fd = UniqueFd(open(m_path.c_str(), O_RDWR | O_CLOEXEC));
    if (!m_fd.IsOpen()) throw ErrnoException(errno, m_path);
    if (Configure(m_fd.Get(), backing_fd, config)) return;
    if (errno == EINVAL && (config.info.lo_flags & LO_FLAGS_DIRECT_IO)) {
      // A backing device whose blocks the loop device cannot align to: its
      // cache is dropped before each read instead.
      config.info.lo_flags &= ~LO_FLAGS_DIRECT_IO;
      if (Configure(m_fd.Get(), backing_fd, config)) return;
    }
    if (errno != EBUSY || attempt + 1 == kAttempts) throw ErrnoException(errno, "setting up " + m_path);
  }
}

void LoopDevice::DropCaches() const {
  if (m_fd.IsOpen()) ioctl(m_fd.Get(), BLKFLSBUF, 0);
}

LoopDevice::~LoopDevice() {
  if (!m_fd.IsOpen()) return;
  const std::string left = Release();
  if (left.empty()) NoteUndone("detached " + m_path);
  else NoteLeft(left);
}

std::string LoopDevice::Release() {
  if (!m_fd.IsOpen()) return "";
  m_fd.Reset();
  if (AwaitDetached(m_name)) return "";
  return m_path + " is still attached " + std::to_string(kDetachLimit.count()) + " s after its last use";
}

bool AwaitDetached(const std::string& name) {
  const std::string backing = "/sys/block/" + name + "/loop/backing_file";
  const auto deadline = std::chrono::steady_clock::now() + kDetachLimit;
  while (access(backing.c_str(), F_OK) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}
