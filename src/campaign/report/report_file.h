#pragma once

#include <stdexcept>
#include <string>

#include "platform/unique_fd.h"

// A report that could not be written: the run ends on it, after its
// cleanup, as one that could not run.
class ReportError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Where a report goes: standard output, or a file. Every write is checked;
// the first that fails throws ReportError (or Interrupted, for a reader
// that went away: SIGPIPE), and later writes are dropped, so that what
// undoes the run does not trip on the same broken report again.
class ReportFile {
 public:
  ReportFile(int fd, std::string name) : m_fd(fd), m_name(std::move(name)) {}
  // Creates or truncates `path`.
  static ReportFile Create(const std::string& path);

  void Append(const std::string& text);
  // The file's whole contents, from its start.
  void Replace(const std::string& text);
  // Synced to its storage, where it has any, and closed.
  void Close();

 private:
  void Fail(int error);

  UniqueFd m_owned;
  int m_fd;
  std::string m_name;
  bool m_broken = false;
};
