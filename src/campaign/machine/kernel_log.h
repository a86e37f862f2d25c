#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

// What a kernel message is to a row.
enum class KernelClass {
  kNote,     // the driver's or the block layer's word: knowledge
  kBug,      // a report of a bug in the kernel: a hazard
  kIoError,  // the row's own scratch store failed under it
};

struct KernelMessage {
  KernelClass kind;
  std::string text;
};

// What the kernel said during a step.
struct KernelWords {
  std::vector<KernelMessage> messages;
  uint64_t lost = 0;  // records overwritten before they could be read
};

// The kernel's log, read through /dev/kmsg from where the campaign began:
// each step takes what the kernel said during it.
class KernelLog {
 public:
  // Throws ErrnoException when /dev/kmsg cannot be read.
  KernelLog();

  // The messages since the last call that concern a row on `devices` (the
  // loop devices it uses, "loop0", and the scratch device under them).
  KernelWords Take(const std::vector<std::string>& devices);
  // One record as /dev/kmsg gives it ("6,1234,5678,-;text\n"), taken into
  // `words`: a gap in the sequence numbers is records lost to an overrun.
  void Take(const std::string& record, const std::vector<std::string>& devices, KernelWords& words);

 private:

  UniqueFd m_fd;
  uint64_t m_next = 0;  // the sequence number the next record should have
  bool m_started = false;
};

// A message's class, and whether it concerns a row on `devices`: a bug
// report that names none of them or no device at all; a line of the
// exFAT or FUSE drivers; any line naming one of them. Lines naming another
// loop device are someone else's.
KernelClass Classify(const std::string& message);
bool ConcernsRow(const std::string& message, const std::vector<std::string>& devices);

// A message in short, for a table: the driver's prefix ("exFAT-fs
// (loop0): ") and details in parentheses dropped.
std::string ShortKernelMessage(const std::string& message);
