#include "campaign/kernel_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>

#include "platform/errno_exception.h"

namespace {

// Words that begin, or stand in, the kernel's reports of its own bugs.
constexpr const char* kBugReportWords[] = {
    "BUG:", "kernel BUG", "WARNING:", "Oops", "KASAN", "UBSAN", "Call trace:", "Call Trace:",
    "Unable to handle kernel", "Internal error:", "Kernel panic", "blocked for more than",
};

bool Contains(const std::string& text, const std::string& word) { return text.find(word) != std::string::npos; }

// `word` where it begins a word: "BUG:", but not the end of "DEBUG:".
bool ContainsWord(const std::string& text, const std::string& word) {
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
    if (at == 0 || !isalnum(static_cast<unsigned char>(text[at - 1]))) return true;
  return false;
}

// The loop devices a message names ("loop0" in "exFAT-fs (loop0): ...").
std::vector<std::string> LoopDevicesIn(const std::string& message) {
  std::vector<std::string> names;
  for (size_t at = message.find("loop"); at != std::string::npos; at = message.find("loop", at + 4)) {
    size_t end = at + 4;
    while (end < message.size() && isdigit(static_cast<unsigned char>(message[end]))) ++end;
    const bool starts_word = at == 0 || !isalnum(static_cast<unsigned char>(message[at - 1]));
    if (end > at + 4 && starts_word) names.push_back(message.substr(at, end - at));
  }
  return names;
}

}  // namespace

bool ConcernsRow(const std::string& message, const std::vector<std::string>& devices) {
  if (IsKernelBugReport(message)) return true;
  if (Contains(message, "detected capacity change")) return false;  // every attach says so
  const std::vector<std::string> named = LoopDevicesIn(message);
  if (!named.empty()) {
    for (const std::string& name : named)
      for (const std::string& device : devices)
        if (name == device) return true;
    return false;
  }
  return Contains(message, "exFAT") || Contains(message, "exfat") || Contains(message, "fuse:") ||
         Contains(message, "fuseblk");
}

KernelLog::KernelLog() : m_fd(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
  if (!m_fd.IsOpen()) throw ErrnoException(errno, "/dev/kmsg");
  lseek(m_fd.Get(), 0, SEEK_END);
}

std::vector<std::string> KernelLog::Take(const std::vector<std::string>& devices) {
  std::vector<std::string> messages;
  char record[8192];
  for (;;) {
    const ssize_t n = read(m_fd.Get(), record, sizeof record - 1);
    if (n < 0 && errno == EPIPE) continue;  // records overwritten before they were read
    if (n <= 0) break;
    // "priority,sequence,time,flags;message\n" and continuation lines.
    const std::string text(record, static_cast<size_t>(n));
    const size_t start = text.find(';');
    if (start == std::string::npos) continue;
    const std::string message = text.substr(start + 1, text.find('\n', start) - start - 1);
    if (ConcernsRow(message, devices)) messages.push_back(message);
  }
  return messages;
}

bool IsKernelBugReport(const std::string& message) {
  for (const char* word : kBugReportWords)
    if (ContainsWord(message, word)) return true;
  return false;
}

std::string ShortKernelMessage(const std::string& message) {
  std::string text = message;
  // "exFAT-fs (loop0): text" -> "text"
  const size_t prefix = text.find("): ");
  if (text.find(" (") < prefix && prefix != std::string::npos && prefix < 32) text.erase(0, prefix + 3);
  std::string shortened;
  int depth = 0;
  for (char c : text) {
    if (c == '(') ++depth;
    if (depth == 0) shortened += c;
    if (c == ')' && depth > 0) --depth;
  }
  while (!shortened.empty() && shortened.back() == ' ') shortened.pop_back();
  std::string tidy;  // "a  b" left where "(...)" stood between blanks
  for (char c : shortened)
    if (!(c == ' ' && !tidy.empty() && tidy.back() == ' ')) tidy += c;
  return tidy;
}
