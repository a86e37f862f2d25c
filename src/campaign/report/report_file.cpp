#include "campaign/report/report_file.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "campaign/machine/interrupt.h"
#include "platform/errno_exception.h"

ReportFile ReportFile::Create(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd.IsOpen()) throw ErrnoException(errno, path);
  ReportFile file(fd.Get(), path);
  file.m_owned = std::move(fd);
  return file;
}

void ReportFile::Fail(int error) {
  m_broken = true;
  if (error == EPIPE) throw Interrupted(SIGPIPE);
  throw ReportError(m_name + ": " + strerror(error));
}

void ReportFile::Append(const std::string& text) {
  for (size_t at = 0; !m_broken && at < text.size();) {
    const ssize_t n = write(m_fd, text.data() + at, text.size() - at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) Fail(n < 0 ? errno : EIO);
    at += static_cast<size_t>(n);
  }
}

void ReportFile::Replace(const std::string& text) {
  if (m_broken) return;
  struct stat info {};
  if (fstat(m_fd, &info) != 0) Fail(errno);
  // A device or a pipe takes the text as it comes.
  if (S_ISREG(info.st_mode) && (lseek(m_fd, 0, SEEK_SET) < 0 || ftruncate(m_fd, 0) != 0)) Fail(errno);
  Append(text);
}

void ReportFile::Close() {
  if (m_broken || !m_owned.IsOpen()) return;
  if (fsync(m_fd) != 0) Fail(errno);
  if (m_owned.Reset() != 0) Fail(errno);
}
