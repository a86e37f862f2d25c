#pragma once

#include <string>
#include <vector>

#include "platform/unique_fd.h"

// The kernel's log, read through /dev/kmsg from where the campaign began:
// each step takes what the kernel said during it.
class KernelLog {
 public:
  // Throws ErrnoException when /dev/kmsg cannot be read.
  KernelLog();

  // The messages since the last call that concern the campaign: those of
  // the exFAT and FUSE drivers, those naming one of `devices` (the loop
  // devices the row uses, "loop0"), and every report of a kernel bug.
  // Lines naming another loop device are left out: they are someone
  // else's.
  std::vector<std::string> Take(const std::vector<std::string>& devices);

 private:
  UniqueFd m_fd;
};

// Whether a message concerns a row that uses `devices`: see KernelLog::Take.
bool ConcernsRow(const std::string& message, const std::vector<std::string>& devices);

// A report of a kernel bug: BUG, WARNING, Oops, KASAN, UBSAN, a call
// trace, a hung task.
bool IsKernelBugReport(const std::string& message);

// A message in short, for a table: the driver's prefix ("exFAT-fs
// (loop0): ") and details in parentheses dropped.
std::string ShortKernelMessage(const std::string& message);
