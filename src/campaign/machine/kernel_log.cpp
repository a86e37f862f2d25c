#include "campaign/machine/kernel_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>

#include "platform/errno_exception.h"

namespace {

// Words that begin, or stand in, the kernel's reports of its own bugs.
constexpr const char* kBugWords[] = {
    "BUG:", "kernel BUG at", "WARNING:", "Oops", "Unable to handle kernel", "Internal error:",
    "general protection fault", "KASAN", "UBSAN", "KFENCE", "Call trace:", "Call Trace:", "Kernel panic",
    "blocked for more than", "oom-kill", "Out of memory", "refcount_t:", "list_add corruption",
    "list_del corruption", "list corruption",
};
// The block layer's and the page cache's word that the store under a
// volume failed: nothing read or written through it can be trusted.
constexpr const char* kIoErrorWords[] = {
    "Buffer I/O error", "lost async page write", "critical space allocation error", "I/O error, dev ",
    "critical medium error", "critical target error", "Write error at byte offset",
};

bool Contains(const std::string& text, const std::string& word) { return text.find(word) != std::string::npos; }

// `word` where it begins a word: "BUG:", but not the end of "DEBUG:".
bool ContainsWord(const std::string& text, const std::string& word) {
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
    if (at == 0 || !isalnum(static_cast<unsigned char>(text[at - 1]))) return true;
  return false;
}

// The block devices a message names: "loop0" in "exFAT-fs (loop0): ...",
// "mmcblk0p3" in "I/O error, dev mmcblk0p3, sector 8".
std::vector<std::string> DevicesIn(const std::string& message) {
  std::vector<std::string> names;
  for (const char* prefix : {"loop", "mmcblk", "sd", "vd", "nvme"}) {
    const size_t length = std::char_traits<char>::length(prefix);
    for (size_t at = message.find(prefix); at != std::string::npos; at = message.find(prefix, at + length)) {
      size_t end = at + length;
      while (end < message.size() && isalnum(static_cast<unsigned char>(message[end]))) ++end;
      const bool starts_word = at == 0 || !isalnum(static_cast<unsigned char>(message[at - 1]));
      const bool numbered = end > at + length && isdigit(static_cast<unsigned char>(message[end - 1]));
      if (starts_word && numbered) names.push_back(message.substr(at, end - at));
    }
  }
  return names;
}

}  // namespace

KernelClass Classify(const std::string& message) {
  for (const char* word : kBugWords)
    if (ContainsWord(message, word)) return KernelClass::kBug;
  for (const char* word : kIoErrorWords)
    if (Contains(message, word)) return KernelClass::kIoError;
  return KernelClass::kNote;
}

bool ConcernsRow(const std::string& message, const std::vector<std::string>& devices) {
  if (Contains(message, "detected capacity change")) return false;  // every attach says so
  const std::vector<std::string> named = DevicesIn(message);
  for (const std::string& name : named)
    for (const std::string& device : devices)
      if (name == device) return true;
  if (!named.empty()) return false;
  return Classify(message) != KernelClass::kNote || Contains(message, "exFAT") || Contains(message, "exfat") ||
         Contains(message, "fuse:") || Contains(message, "fuseblk");
}

KernelLog::KernelLog() : m_fd(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
  if (!m_fd.IsOpen()) throw ErrnoException(errno, "/dev/kmsg");
  lseek(m_fd.Get(), 0, SEEK_END);
}

KernelWords KernelLog::Take(const std::vector<std::string>& devices) {
  KernelWords words;
  char record[8192];
  for (;;) {
    const ssize_t n = read(m_fd.Get(), record, sizeof record - 1);
    if (n < 0 && errno == EPIPE) continue;  // overwritten records: the sequence numbers tell how many
    if (n <= 0) break;
    Take(std::string(record, static_cast<size_t>(n)), devices, words);
  }
  return words;
}

void KernelLog::Take(const std::string& record, const std::vector<std::string>& devices, KernelWords& words) {
  // "priority,sequence,time,flags;message\n" and continuation lines.
  const size_t comma = record.find(',');
  const size_t start = record.find(';');
  if (comma == std::string::npos || start == std::string::npos) return;
  const uint64_t sequence = strtoull(record.c_str() + comma + 1, nullptr, 10);
  if (m_started && sequence > m_next) words.lost += sequence - m_next;
  m_started = true;
  m_next = sequence + 1;
  const std::string message = record.substr(start + 1, record.find('\n', start) - start - 1);
  if (ConcernsRow(message, devices)) words.messages.push_back({Classify(message), message});
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
