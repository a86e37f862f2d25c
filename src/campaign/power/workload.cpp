#include "campaign/power/workload.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

constexpr uint64_t kCluster = 4096;  // the power-cut volume's
// The chained pair grows by this much in turns, so that their clusters
// interleave and each needs its FAT chain.
constexpr uint64_t kPiece = 8192;
constexpr int kPieces = 3;

UniqueFd Open(const std::string& root, const std::string& path, int flags) {
  UniqueFd fd(open((root + "/" + path).c_str(), flags | O_CLOEXEC, 0644));
  if (!fd.IsOpen()) throw ErrnoException(errno, "open " + path);
  return fd;
}

UniqueFd Create(const std::string& root, const TreeFile& file) {
  return Open(root, file.path, O_WRONLY | O_CREAT | O_EXCL);
}

void Fsync(int fd, const std::string& path) {
  if (fsync(fd) != 0) throw ErrnoException(errno, "fsync " + path);
}

// fsync of a directory: its entries are on the medium when it returns.
void FsyncDirectory(const std::string& root, const std::string& path) {
  const UniqueFd fd = Open(root, path, O_RDONLY | O_DIRECTORY);
  Fsync(fd.Get(), path.empty() ? "/" : path);
}

void MakeDirectory(const std::string& root, const std::string& path) {
  if (mkdir((root + "/" + path).c_str(), 0755) != 0) throw ErrnoException(errno, "mkdir " + path);
}

void WriteSynced(const std::string& root, const TreeFile& file) {
  const UniqueFd fd = Create(root, file);
  WriteContents(fd.Get(), file, 0, file.size);
  Fsync(fd.Get(), file.path);
}

TreeFile Resized(TreeFile file, uint64_t size) {
  file.size = size;
  return file;
}

TreeFile Moved(TreeFile file, const std::string& path) {
  file.path = path;
  return file;
}

}  // namespace

Workload::Workload(const KnownTree& tree, uint32_t seed) : m_tree(tree.Files()) {
  const auto file = [&tree](const char* label) { return tree.File(label); };
  const TreeFile empty{"pc-empty", "pc-empty", 0, seed + 201};
  const TreeFile small{"pc-small", "pc-small", 1000, seed + 202};
  const TreeFile contiguous{"pc-contiguous", "pc-contiguous", 5 * kCluster + 123, seed + 203};
  const TreeFile chained_a{"pc-chained-a", "pc-chained-a", kPiece * kPieces, seed + 204};
  const TreeFile chained_b{"pc-chained-b", "pc-chained-b", kPiece * kPieces, seed + 205};
  const TreeFile appended = Resized(file("file2"), file("file2").size + 9000);
  TreeFile overwritten = file("big");
  overwritten.seed = seed + 206;
  const TreeFile truncated = Resized(file("frag-a"), 10000);
  const TreeFile renamed = Moved(file("file1"), file("file1").path + "-renamed");
  const TreeFile inside{"pc-dir/inside", "pc-dir/inside", 5000, seed + 207};
  // After three sets of three entries, a name of 120 characters takes ten
  // (file, stream, eight names): the set crosses from the directory's
  // first sector into its second.
  const std::vector<TreeFile> before_long = {{"pc-long/a", "pc-long/a", 0, seed + 208},
                                             {"pc-long/b", "pc-long/b", 0, seed + 209},
                                             {"pc-long/c", "pc-long/c", 0, seed + 210}};
  const TreeFile long_name{"pc-long/120", "pc-long/" + std::string(116, 'L') + ".bin", 3000, seed + 211};
  const TreeFile unsynced{"pc-unsynced", "pc-unsynced", 50000, seed + 212};

  m_steps = {
      {"new-empty", [=](const std::string& root) { WriteSynced(root, empty); }, {empty}, {}},
      {"new-small", [=](const std::string& root) { WriteSynced(root, small); }, {small}, {}},
      {"new-contiguous", [=](const std::string& root) { WriteSynced(root, contiguous); }, {contiguous}, {}},
      {"new-chained",
       [=](const std::string& root) {
         const UniqueFd a = Create(root, chained_a), b = Create(root, chained_b);
         for (uint64_t at = 0; at < chained_a.size; at += kPiece) {
           WriteContents(a.Get(), chained_a, at, at + kPiece);
           Fsync(a.Get(), chained_a.path);  // each piece allocated before the other file's next
           WriteContents(b.Get(), chained_b, at, at + kPiece);
           Fsync(b.Get(), chained_b.path);
         }
       },
       {chained_a, chained_b},
       {}},
      // Past its last cluster: the entry set is written again with the new sizes.
      {"append",
       [=](const std::string& root) {
         const UniqueFd fd = Open(root, appended.path, O_WRONLY);
         WriteContents(fd.Get(), appended, appended.size - 9000, appended.size);
         Fsync(fd.Get(), appended.path);
       },
       {appended},
       {}},
      {"overwrite",
       [=](const std::string& root) {
         const UniqueFd fd = Open(root, overwritten.path, O_WRONLY);
         WriteContents(fd.Get(), overwritten, 0, overwritten.size);
         if (fdatasync(fd.Get()) != 0) throw ErrnoException(errno, "fdatasync " + overwritten.path);
       },
       {overwritten},
       {}},
      {"truncate",
       [=](const std::string& root) {
         const UniqueFd fd = Open(root, truncated.path, O_WRONLY);
         if (ftruncate(fd.Get(), static_cast<off_t>(truncated.size)) != 0)
           throw ErrnoException(errno, "ftruncate " + truncated.path);
         Fsync(fd.Get(), truncated.path);
       },
       {truncated},
       {}},
      {"rename",
       [=](const std::string& root) {
         if (rename((root + "/" + file("file1").path).c_str(), (root + "/" + renamed.path).c_str()) != 0)
           throw ErrnoException(errno, "rename " + file("file1").path);
         FsyncDirectory(root, "");
       },
       {renamed},
       {}},
      {"unlink",
       [=](const std::string& root) {
         if (unlink((root + "/" + file("frag-b").path).c_str()) != 0)
           throw ErrnoException(errno, "unlink " + file("frag-b").path);
         FsyncDirectory(root, "");
       },
       {},
       {"frag-b"}},
      {"mkdir",
       [=](const std::string& root) {
         MakeDirectory(root, "pc-dir");
         WriteSynced(root, inside);
         FsyncDirectory(root, "pc-dir");
         FsyncDirectory(root, "");
       },
       {inside},
       {}},
      {"long-name",
       [=](const std::string& root) {
         MakeDirectory(root, "pc-long");
         for (const TreeFile& short_name : before_long) WriteSynced(root, short_name);
         WriteSynced(root, long_name);
         FsyncDirectory(root, "pc-long");
         FsyncDirectory(root, "");
       },
       {before_long[0], before_long[1], before_long[2], long_name},
       {}},
      // Written and never synced: only the unmount puts it on the medium.
      {"",
       [=](const std::string& root) {
         const UniqueFd fd = Create(root, unsynced);
         WriteContents(fd.Get(), unsynced, 0, unsynced.size);
       },
       {unsynced},
       {}},
      {kUnmounted, nullptr, {}, {}},
  };

  std::vector<TreeFile> durable = m_tree;
  std::vector<std::string> touched;
  for (const Step& step : m_steps) {
    for (const std::string& label : step.gone) {
      touched.push_back(label);
      durable.erase(std::remove_if(durable.begin(), durable.end(), [&](const TreeFile& f) { return f.label == label; }),
                    durable.end());
    }
    for (const TreeFile& made : step.made) {
      touched.push_back(made.label);
      const auto same = std::find_if(durable.begin(), durable.end(), [&](const TreeFile& f) { return f.label == made.label; });
      if (same != durable.end()) *same = made;
      else durable.push_back(made);
    }
    if (step.mark.empty()) continue;
    m_marks.push_back(step.mark);
    m_durable.push_back(durable);
    m_touched.push_back(std::exchange(touched, {}));
  }
}

std::vector<TreeFile> Workload::DurableAt(const std::string& mark, bool before) const {
  const size_t at = static_cast<size_t>(std::find(m_marks.begin(), m_marks.end(), mark) - m_marks.begin());
  if (at == m_marks.size()) throw std::logic_error("no mark " + mark + " in the workload");
  if (!before) return m_durable[at];
  std::vector<TreeFile> durable = at == 0 ? m_tree : m_durable[at - 1];
  const std::vector<std::string>& touched = m_touched[at];
  durable.erase(std::remove_if(durable.begin(), durable.end(),
                               [&](const TreeFile& f) {
                                 return std::find(touched.begin(), touched.end(), f.label) != touched.end();
                               }),
                durable.end());
  return durable;
}

void Workload::Run(const std::string& root, const std::function<void(const std::string&)>& mark) const {
  for (const Step& step : m_steps) {
    if (step.run) step.run(root);
    if (!step.mark.empty() && step.mark != kUnmounted) mark(step.mark);
  }
}
