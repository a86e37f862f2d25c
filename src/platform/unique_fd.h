#pragma once

#include <unistd.h>

#include <utility>

// Owns a file descriptor and closes it when the scope ends, however it ends.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : m_fd(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Reset();
      m_fd = std::exchange(other.m_fd, -1);
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int Get() const { return m_fd; }
  bool IsOpen() const { return m_fd >= 0; }
  // Closes now; the close result is returned for callers that care.
  int Reset() {
    int result = 0;
    if (m_fd >= 0) result = close(m_fd);
    m_fd = -1;
    return result;
  }

 private:
  int m_fd = -1;
};
