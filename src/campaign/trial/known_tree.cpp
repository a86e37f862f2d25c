#include "campaign/trial/known_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "platform/errno_exception.h"
#include "platform/posix_helpers.h"
#include "platform/unique_fd.h"
#include "tests/data_block.h"

namespace {

constexpr uint64_t kWriteBytes = 64 * 1024;
// The two fragmented files grow by this much in turns.
constexpr uint64_t kFragmentPiece = 8192;
constexpr int kFragmentPieces = 6;

std::string Join(const std::string& base, const std::string& name) { return base.empty() ? name : base + "/" + name; }

UniqueFd Create(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!fd.IsOpen()) throw ErrnoException(errno, path);
  return fd;
}

void Sync(int fd, const std::string& path) {
  if (fsync(fd) != 0) throw ErrnoException(errno, path);
}

}  // namespace

KnownTree::KnownTree(const std::string& base, uint32_t seed) : m_base(base) {
  const std::string nested = Join(base, "nested");
  const std::string deep = nested + "/level2/level3";
  m_nested = {nested, nested + "/level2", deep};
  // The order the driver meets them in: file1 and file2 come first in their
  // directory, so that in the root file2's Stream Extension entry is the
  // eighth entry (after the label, bitmap and up-case table, and file1).
  m_files = {
      {"file1", Join(base, "file1"), 3000, seed + 1},
      {"file2", Join(base, "file2"), 40000, seed + 2},
      {"big", Join(base, "big"), 600000, seed + 3},
      {"frag-a", Join(base, "frag-a"), kFragmentPiece * kFragmentPieces, seed + 4},
      {"frag-b", Join(base, "frag-b"), kFragmentPiece * kFragmentPieces, seed + 5},
      {"deep", deep + "/deep.bin", 20000, seed + 6},
      {"unicode", nested + "/Grüße, 日本語 — ü.txt", 5000, seed + 7},
      {"long-name", nested + "/long-" + std::string(246, 'n') + ".txt", 7000, seed + 8},
  };
}

const TreeFile& KnownTree::File(const std::string& label) const {
  for (const TreeFile& file : m_files)
    if (file.label == label) return file;
  throw std::logic_error("no file " + label + " in the tree");
}

void KnownTree::Populate(const std::string& root) const {
  const auto make_directory = [&root](const std::string& directory) {
    if (mkdir((root + "/" + directory).c_str(), 0755) != 0) throw ErrnoException(errno, directory);
  };
  const auto write_whole = [&root](const TreeFile& file) {
    UniqueFd fd = Create(root + "/" + file.path);
    WriteContents(fd.Get(), file, 0, file.size);
    Sync(fd.Get(), file.path);
  };
  if (!m_base.empty()) make_directory(m_base);
  for (const char* label : {"file1", "file2", "big"}) write_whole(File(label));
  // Grown in turns, so that their clusters interleave.
  const TreeFile& a = File("frag-a");
  const TreeFile& b = File("frag-b");
  UniqueFd a_fd = Create(root + "/" + a.path);
  UniqueFd b_fd = Create(root + "/" + b.path);
  for (uint64_t at = 0; at < a.size; at += kFragmentPiece) {
    for (auto [fd, file] : {std::pair{a_fd.Get(), &a}, {b_fd.Get(), &b}}) {
      WriteContents(fd, *file, at, at + kFragmentPiece);
      Sync(fd, file->path);
    }
  }
  for (const std::string& directory : m_nested) make_directory(directory);
  for (const char* label : {"deep", "unicode", "long-name"}) write_whole(File(label));
}

TreeFile NewFile(const std::string& label, uint32_t seed) {
  return {label, "campaign-" + label, 65536, seed + (label == "new" ? 99u : 100u)};
}

void WriteContents(int fd, const TreeFile& file, uint64_t from, uint64_t to) {
  const std::vector<unsigned char> block = MakeDataBlock(file.seed, kPeriod);
  std::vector<unsigned char> buffer(kWriteBytes);
  for (uint64_t at = from; at < to;) {
    const uint64_t n = std::min(kWriteBytes, to - at);
    for (uint64_t i = 0; i < n; ++i) buffer[i] = block[(at + i) % kPeriod];
    if (pwrite(fd, buffer.data(), n, static_cast<off_t>(at)) != static_cast<ssize_t>(n))
      throw ErrnoException(errno == 0 ? EIO : errno, file.path);
    at += n;
  }
}
