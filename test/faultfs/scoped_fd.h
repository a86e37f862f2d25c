#pragma once

#include <unistd.h>

#include <utility>

namespace faultfs {

// Closes its descriptor when the scope ends.
class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : m_fd(fd) {}
  ~ScopedFd() {
    if (m_fd >= 0) close(m_fd);
  }
  ScopedFd(ScopedFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    if (this != &other) {
      if (m_fd >= 0) close(m_fd);
      m_fd = std::exchange(other.m_fd, -1);
    }
    return *this;
  }
  ScopedFd& operator=(const ScopedFd&) = delete;

  int Get() const { return m_fd; }
  bool IsOpen() const { return m_fd >= 0; }

 private:
  int m_fd;
};

}  // namespace faultfs
