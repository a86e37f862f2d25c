#include "campaign/trial/image_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <fstream>
#include <stdexcept>

#include <fmt/format.h>

#include "campaign/machine/error_name.h"
#include "campaign/machine/sha256.h"
#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

// Bounds of one walk: a damaged tree can present more entries than any
// card holds, or a directory that contains itself without end.
constexpr size_t kMostEntries = 200000;
constexpr size_t kDeepest = 64;
constexpr size_t kWalkText = 64 << 20;
constexpr size_t kReadBytes = 1 << 20;
constexpr size_t kDisagreementsTold = 20;
constexpr size_t kDigestDigits = 64;

// In the walking process: the entries as NUL-separated fields, five each.
class Walker {
 public:
  std::string Walk(const std::string& root) {
    Directory(root, "", 0);
    if (m_count > kMostEntries) m_text += "cut";
    return m_text;
  }

 private:
  void Add(const WalkedEntry& entry) {
    if (++m_count > kMostEntries) return;
    for (const std::string& field : {std::string(entry.directory ? "d" : "f"), std::to_string(entry.bytes),
                                     entry.sha256, std::to_string(entry.error), entry.path})
      m_text += field + '\0';
  }

  void Directory(const std::string& root, const std::string& path, size_t depth) {
    WalkedEntry self{path, true, 0, "", 0};
    std::vector<std::pair<std::string, bool>> children;  // name, is a directory
    if (depth > kDeepest) {
      self.error = ELOOP;
    } else if (DIR* directory = opendir((root + "/" + path).c_str())) {
      errno = 0;
      while (const dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") children.emplace_back(name, IsDirectory(directory, *entry));
        if (children.size() > kMostEntries) break;
      }
      self.error = errno;
      closedir(directory);
    } else {
      self.error = errno;
    }
    if (!path.empty() || self.error != 0) Add(self.path.empty() ? WalkedEntry{".", true, 0, "", self.error} : self);
    std::sort(children.begin(), children.end());
    for (const auto& [name, is_directory] : children) {
      if (m_count > kMostEntries) return;
      const std::string child = path.empty() ? name : path + "/" + name;
      if (is_directory) Directory(root, child, depth + 1);
      else Add(File(root, child));
    }
  }

  // Drivers need not say an entry's type in the listing (FUSE
  // filesystems often do not): then it is asked for.
  static bool IsDirectory(DIR* directory, const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
    struct stat st {};
    const int listing_error = errno;  // readdir's, which a failed fstatat must not replace
    const bool is_directory =
        fstatat(dirfd(directory), entry.d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
    errno = listing_error;
    return is_directory;
  }

  static WalkedEntry File(const std::string& root, const std::string& path) {
    WalkedEntry entry{path, false, 0, "", 0};
    UniqueFd fd(open((root + "/" + path).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.IsOpen()) {
      entry.error = errno;
      return entry;
    }
    Sha256 hash;
    std::vector<uint8_t> buffer(kReadBytes);
    for (;;) {
      const ssize_t n = read(fd.Get(), buffer.data(), buffer.size());
      if (n < 0) entry.error = errno;
      if (n <= 0) break;
      hash.Add({buffer.data(), static_cast<size_t>(n)});
      entry.bytes += static_cast<uint64_t>(n);
    }
    if (entry.error == 0) entry.sha256 = hash.HexDigest();
    return entry;
  }

  std::string m_text;
  size_t m_count = 0;
};

std::vector<WalkedEntry> Parse(const std::string& text, bool& cut) {
  std::vector<std::string> fields;
  size_t at = 0;
  for (size_t end; (end = text.find('\0', at)) != std::string::npos; at = end + 1) fields.push_back(text.substr(at, end - at));
  cut = text.substr(at) == "cut";
  std::vector<WalkedEntry> entries;
  for (size_t i = 0; i + 5 <= fields.size(); i += 5)
    entries.push_back({fields[i + 4], fields[i] == "d", std::stoull(fields[i + 1]), fields[i + 2],
                       std::stoi(fields[i + 3])});
  return entries;
}

// "4096 bytes, sha256 3f2a9c01d2e4", "EIO after 0 bytes", "a directory".
std::string Describe(const WalkedEntry& entry) {
  if (entry.error != 0) return fmt::format("{} after {} bytes", ErrorName(entry.error), entry.bytes);
  if (entry.directory) return "a directory";
  return fmt::format("{} bytes, sha256 {}", entry.bytes, entry.sha256.substr(0, 12));
}

bool Alike(const WalkedEntry& a, const WalkedEntry& b) {
  return a.directory == b.directory && a.bytes == b.bytes && a.sha256 == b.sha256 && a.error == b.error;
}

}  // namespace

std::string Walk::Summary() const {
  size_t files = 0, directories = 0;
  std::string errors;
  for (const WalkedEntry& entry : entries) {
    (entry.directory ? directories : files) += 1;
    if (entry.error != 0) errors += fmt::format("{}{} ({})", errors.empty() ? "" : ", ", entry.path, ErrorName(entry.error));
  }
  std::string said = fmt::format("{} {} in {} {}", files, files == 1 ? "file" : "files", directories,
                                 directories == 1 ? "directory" : "directories");
  if (cut) said += fmt::format(", the first {} entries", kMostEntries);
  return errors.empty() ? said : said + "; read error: " + errors;
}

Walk WalkVolume(const std::string& root, std::chrono::seconds limit) {
  const IsolatedRun<std::string> run = RunIsolatedText(limit, kWalkText, [&] { return Walker().Walk(root); });
  Walk walk;
  walk.end = run.end;
  if (run.result) {
    walk.finished = true;
    walk.entries = Parse(*run.result, walk.cut);
  }
  return walk;
}

std::vector<FileRead> Unreadable(const Walk& walk) {
  std::vector<FileRead> reads;
  for (const WalkedEntry& entry : walk.entries)
    if (entry.error != 0) reads.push_back({entry.path, Expect::kReadable, FileState::kReadError, ErrorName(entry.error)});
  return reads;
}

std::vector<std::string> Disagreements(const Walk& first, const Walk& second) {
  std::map<std::string, const WalkedEntry*> seconds;
  for (const WalkedEntry& entry : second.entries) seconds[entry.path] = &entry;
  std::vector<std::string> lines;
  size_t count = 0;
  auto tell = [&](const std::string& line) {
    if (++count <= kDisagreementsTold) lines.push_back(line);
  };
  for (const WalkedEntry& entry : first.entries) {
    const auto found = seconds.find(entry.path);
    if (found == seconds.end()) {
      if (!second.cut) tell(entry.path + ": " + Describe(entry) + "; then not listed");
      continue;
    }
    if (!Alike(entry, *found->second)) tell(entry.path + ": " + Describe(entry) + "; then " + Describe(*found->second));
    seconds.erase(found);
  }
  if (!first.cut)
    for (const auto& [path, entry] : seconds) tell(path + ": not listed; then " + Describe(*entry));
  if (count > kDisagreementsTold) lines.push_back(fmt::format("and {} more", count - kDisagreementsTold));
  return lines;
}

std::map<std::string, std::string> ReadManifest(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw ErrnoException(errno ? errno : EIO, path);
  std::map<std::string, std::string> digests;
  std::string line;
  for (size_t number = 1; std::getline(in, line); ++number) {
    if (line.empty()) continue;
    // "<64 hex digits> <' ' for text, '*' for binary><path>"
    const bool well_formed = line.size() > kDigestDigits + 2 && line[kDigestDigits] == ' ' &&
                             (line[kDigestDigits + 1] == ' ' || line[kDigestDigits + 1] == '*') &&
                             std::all_of(line.begin(), line.begin() + kDigestDigits,
                                         [](char c) { return isxdigit(static_cast<unsigned char>(c)) != 0; });
    if (!well_formed)
      throw std::runtime_error(fmt::format("{}, line {}: not a SHA-256 digest and a path", path, number));
    std::string file = line.substr(kDigestDigits + 2);
    while (file.rfind("./", 0) == 0 || file.rfind('/', 0) == 0) file.erase(0, file[0] == '/' ? 1 : 2);
    std::string digest = line.substr(0, kDigestDigits);
    std::transform(digest.begin(), digest.end(), digest.begin(), [](char c) { return static_cast<char>(tolower(c)); });
    digests[file] = digest;
  }
  return digests;
}

std::vector<FileRead> AgainstManifest(const Walk& walk, const std::map<std::string, std::string>& manifest,
                                      Expect expect) {
  std::map<std::string, const WalkedEntry*> found;
  for (const WalkedEntry& entry : walk.entries)
    if (!entry.directory) found[entry.path] = &entry;
  std::vector<FileRead> reads;
  for (const auto& [path, digest] : manifest) {
    const auto entry = found.find(path);
    if (entry == found.end()) {
      if (!walk.cut) reads.push_back({path, expect, FileState::kMissing, ""});
    } else if (entry->second->error != 0) {
      reads.push_back({path, expect, FileState::kReadError, ErrorName(entry->second->error)});
    } else if (entry->second->sha256 != digest) {
      reads.push_back({path, expect, FileState::kDiffers, fmt::format("{} bytes, not the manifest's", entry->second->bytes)});
    } else {
      reads.push_back({path, expect, FileState::kSame, ""});
    }
  }
  return reads;
}
