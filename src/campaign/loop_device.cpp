#include "campaign/loop_device.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "platform/errno_exception.h"

namespace {

// Another program may take the free device between asking and setting up.
constexpr int kAttempts = 20;

// Kernels before 5.8 have no LOOP_CONFIGURE: the device is set up in two calls.
bool ConfigureInTwoCalls(int loop_fd, int backing_fd, const loop_info64& info) {
  if (ioctl(loop_fd, LOOP_SET_FD, backing_fd) != 0) return false;
  if (ioctl(loop_fd, LOOP_SET_STATUS64, &info) == 0) return true;
  const int error = errno;
  ioctl(loop_fd, LOOP_CLR_FD, 0);
  errno = error;
  return false;
}

}  // namespace

LoopDevice::LoopDevice(int backing_fd, uint64_t size) {
  UniqueFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  if (!control.IsOpen()) throw ErrnoException(errno, "/dev/loop-control");
  loop_config config{};
  config.fd = static_cast<uint32_t>(backing_fd);
  config.info.lo_sizelimit = size;
  config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
  for (int attempt = 0;; ++attempt) {
    const int number = ioctl(control.Get(), LOOP_CTL_GET_FREE);
    if (number < 0) throw ErrnoException(errno, "/dev/loop-control");
    m_name = "loop" + std::to_string(number);
    m_path = "/dev/" + m_name;
    m_fd = UniqueFd(open(m_path.c_str(), O_RDWR | O_CLOEXEC));
    if (!m_fd.IsOpen()) throw ErrnoException(errno, m_path);
    if (ioctl(m_fd.Get(), LOOP_CONFIGURE, &config) == 0) return;
    if ((errno == EINVAL || errno == ENOTTY) && ConfigureInTwoCalls(m_fd.Get(), backing_fd, config.info)) return;
    if (errno != EBUSY || attempt + 1 == kAttempts) throw ErrnoException(errno, "setting up " + m_path);
  }
}
