#include "fault_filesystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "name_rules.h"
#include "scoped_fd.h"

namespace faultfs {
namespace {

// The state behind one open file.
struct Handle {
  ScopedFd fd;
  int flags;  // as the caller opened it
};

Handle& HandleOf(fuse_file_info* fi) { return *reinterpret_cast<Handle*>(fi->fh); }

// The most a stale-extend mount remembers of a cut-off tail.
constexpr uint64_t kMaxTail = 64ull << 20;

// Where the descriptor's file is now (it may have been renamed since it
// was opened).
std::string CurrentPath(int fd) {
  char link[PATH_MAX];
  std::string proc = "/proc/self/fd/" + std::to_string(fd);
  ssize_t n = readlink(proc.c_str(), link, sizeof link - 1);
  return n < 0 ? std::string() : std::string(link, static_cast<size_t>(n));
}

std::string DirName(const std::string& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Flags for the backing descriptor: always read-write (the kernel already
// enforces the caller's access mode, and faults must read what they damage),
// and without O_APPEND, which is emulated so that offsets stay exact.
int BackingFlags(int flags) {
  return (flags & ~(O_ACCMODE | O_APPEND | O_CREAT | O_EXCL)) | O_RDWR | O_CLOEXEC;
}

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

}  // namespace

FaultFilesystem::FaultFilesystem(std::string backing_root, FaultConfig config)
    : m_root(std::move(backing_root)),
      m_config(std::move(config)),
      m_space(m_config.capacity_bytes, m_config.cluster_bytes,
              m_config.fault != Fault::kNoEnospc) {}

void FaultFilesystem::Scan() { ScanDirectory(m_root, true); }

void FaultFilesystem::ScanDirectory(const std::string& backing_dir, bool recursive) {
  struct stat dir_stat {};
  if (lstat(backing_dir.c_str(), &dir_stat) != 0) return;
  DirPtr dir(opendir(backing_dir.c_str()));
  if (!dir) return;
  uint64_t entries = 0, slots = 0;
  std::vector<std::string> subdirectories;
  while (dirent* entry = readdir(dir.get())) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    ++entries;
    slots += EntrySlots(m_names.FromBacking(name));
    std::string path = backing_dir + "/" + name;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISREG(st.st_mode)) m_space.Resize(0, static_cast<uint64_t>(st.st_size));
    if (S_ISDIR(st.st_mode) && recursive) subdirectories.push_back(path);
  }
  m_space.AddDirectory(dir_stat.st_ino, entries, slots);
  for (const auto& sub : subdirectories) ScanDirectory(sub, true);
}

bool FaultFilesystem::LongLookups() const {
  return Is(Fault::kLongNames) || Is(Fault::kRenameLong);
}

int FaultFilesystem::Resolve(const char* path, std::string& backing) {
  if (path == nullptr) return -ESTALE;
  backing = m_root;
  std::string text = path;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('/', start);
    if (end == std::string::npos) end = text.size();
    std::string component = text.substr(start, end - start);
    start = end + 1;
    if (component.empty()) continue;
    // Like exFAT, a lookup of an over-long name fails before any search.
    if (!LongLookups() && Utf16Length(component) > kMaxNameUnits) return -ENAMETOOLONG;
    backing += "/" + m_names.ToBacking(component);
  }
  return 0;
}

int FaultFilesystem::ResolveTarget(const char* path, Target& target) {
  if (path == nullptr) return -ESTALE;
  std::string text = path;
  auto slash = text.rfind('/');
  std::string parent = slash == std::string::npos ? "/" : text.substr(0, slash);
  target.name = text.substr(slash == std::string::npos ? 0 : slash + 1);
  if (int r = Resolve(parent.c_str(), target.parent)) return r;
  if (!LongLookups() && Utf16Length(target.name) > kMaxNameUnits) return -ENAMETOOLONG;
  target.backing = target.parent + "/" + m_names.ToBacking(target.name);
  return 0;
}

int FaultFilesystem::CheckName(const std::string& name, bool allow_long) const {
  std::string accepted = Is(Fault::kBadChars) ? m_config.accepted_bad_chars : "";
  return CheckNewName(name, allow_long, accepted);
}

int FaultFilesystem::DirectoryInode(const std::string& backing_dir, ino_t& ino) {
  struct stat st {};
  if (lstat(backing_dir.c_str(), &st) != 0) return -errno;
  if (!S_ISDIR(st.st_mode)) return -ENOTDIR;
  if (!m_space.KnowsDirectory(st.st_ino)) ScanDirectory(backing_dir, false);
  ino = st.st_ino;
  return 0;
}

void FaultFilesystem::Present(struct stat* st) const {
  if (!S_ISREG(st->st_mode)) return;
  auto reported = m_reported_size.find(st->st_ino);
  if (reported != m_reported_size.end()) st->st_size = static_cast<off_t>(reported->second);
  // exFAT has no holes: a file holds every cluster up to its size.
  st->st_blksize = static_cast<blksize_t>(m_space.ClusterBytes());
  st->st_blocks = static_cast<blkcnt_t>(m_space.ClustersFor(static_cast<uint64_t>(st->st_size)) *
                                        m_space.ClusterBytes() / 512);
}

void FaultFilesystem::Forget(ino_t ino) {
  m_reported_size.erase(ino);
  m_tails.erase(ino);
}

int FaultFilesystem::GetAttr(const char* path, struct stat* st, fuse_file_info* fi) {
  if (fi != nullptr) {
    if (fstat(HandleOf(fi).fd.Get(), st) != 0) return -errno;
  } else {
    std::string backing;
    if (int r = Resolve(path, backing)) return r;
    if (lstat(backing.c_str(), st) != 0) return -errno;
  }
  Present(st);
  return 0;
}

int FaultFilesystem::ReadDir(const char* path, void* buf, fuse_fill_dir_t filler) {
  std::string backing;
  if (int r = Resolve(path, backing)) return r;
  DirPtr dir(opendir(backing.c_str()));
  if (!dir) return -errno;
  while (dirent* entry = readdir(dir.get())) {
    std::string name = m_names.FromBacking(entry->d_name);
    if (filler(buf, name.c_str(), nullptr, 0, static_cast<fuse_fill_dir_flags>(0)) != 0) break;
  }
  return 0;
}

int FaultFilesystem::MkDir(const char* path, mode_t mode) {
  Target t;
  if (int r = ResolveTarget(path, t)) return r;
  ino_t parent;
  if (int r = DirectoryInode(t.parent, parent)) return r;
  struct stat st {};
  if (lstat(t.backing.c_str(), &st) == 0) return -EEXIST;
  if (int r = CheckName(t.name, Is(Fault::kLongNames))) return r;
  uint64_t slots = EntrySlots(t.name);
  if (!m_space.FitsEntry(parent, slots, 1)) return -ENOSPC;
  if (mkdir(t.backing.c_str(), mode) != 0) return -errno;
  m_space.AddEntry(parent, slots);
  if (lstat(t.backing.c_str(), &st) == 0) m_space.AddDirectory(st.st_ino, 0, 0);
  return 0;
}

int FaultFilesystem::RmDir(const char* path) {
  Target t;
  if (int r = ResolveTarget(path, t)) return r;
  ino_t parent;
  if (int r = DirectoryInode(t.parent, parent)) return r;
  struct stat st {};
  if (lstat(t.backing.c_str(), &st) != 0) return -errno;
  if (rmdir(t.backing.c_str()) != 0) return -errno;
  m_space.RemoveDirectory(st.st_ino);
  m_space.RemoveEntry(parent, EntrySlots(t.name));
  return 0;
}

int FaultFilesystem::Unlink(const char* path) {
  Target t;
  if (int r = ResolveTarget(path, t)) return r;
  ino_t parent;
  if (int r = DirectoryInode(t.parent, parent)) return r;
  struct stat st {};
  if (lstat(t.backing.c_str(), &st) != 0) return -errno;
  if (unlink(t.backing.c_str()) != 0) return -errno;
  if (S_ISREG(st.st_mode)) m_space.Resize(static_cast<uint64_t>(st.st_size), 0);
  m_space.RemoveEntry(parent, EntrySlots(t.name));
  Forget(st.st_ino);
  return 0;
}

int FaultFilesystem::Rename(const char* from, const char* to, unsigned int flags) {
  if ((flags & ~RENAME_NOREPLACE) != 0) return -EINVAL;
  Target source, dest;
  if (int r = ResolveTarget(from, source)) return r;
  if (int r = ResolveTarget(to, dest)) return r;
  if (int r = CheckName(dest.name, Is(Fault::kLongNames) || Is(Fault::kRenameLong))) return r;
  ino_t source_parent, dest_parent;
  if (int r = DirectoryInode(source.parent, source_parent)) return r;
  if (int r = DirectoryInode(dest.parent, dest_parent)) return r;
  struct stat moved {}, replaced {};
  if (lstat(source.backing.c_str(), &moved) != 0) return -errno;
  bool replaces = lstat(dest.backing.c_str(), &replaced) == 0;
  if (replaces && (flags & RENAME_NOREPLACE)) return -EEXIST;
  if (replaces && replaced.st_ino == moved.st_ino) return 0;
  uint64_t source_slots = EntrySlots(source.name), dest_slots = EntrySlots(dest.name);
  // A replaced entry set is reused for the same name; a new name may need
  // the destination directory to grow.
  if (!replaces && !m_space.FitsEntry(dest_parent, dest_slots, 0)) return -ENOSPC;
  if (renameat2(AT_FDCWD, source.backing.c_str(), AT_FDCWD, dest.backing.c_str(), flags) != 0)
    return -errno;
  if (replaces) {
    if (S_ISREG(replaced.st_mode)) {
      m_space.Resize(static_cast<uint64_t>(replaced.st_size), 0);
      Forget(replaced.st_ino);
    } else if (S_ISDIR(replaced.st_mode)) {
      m_space.RemoveDirectory(replaced.st_ino);
    }
    m_space.RemoveEntry(dest_parent, dest_slots);
  }
  m_space.RemoveEntry(source_parent, source_slots);
  m_space.AddEntry(dest_parent, dest_slots);
  return 0;
}

int FaultFilesystem::OpenHandle(const std::string& backing, int flags, mode_t mode,
                                fuse_file_info* fi) {
  struct stat before {};
  bool existed = lstat(backing.c_str(), &before) == 0;
  int extra = existed ? 0 : O_CREAT | O_EXCL;
  ScopedFd fd(open(backing.c_str(), BackingFlags(flags) | extra, mode));
  if (!fd.IsOpen()) return -errno;
  struct stat after {};
  if (fstat(fd.Get(), &after) != 0) return -errno;
  if (existed && S_ISREG(after.st_mode) && after.st_size != before.st_size) {
    // O_TRUNC
    m_space.Resize(static_cast<uint64_t>(before.st_size), static_cast<uint64_t>(after.st_size));
    Forget(after.st_ino);
  }
  fi->fh = reinterpret_cast<uint64_t>(new Handle{std::move(fd), flags});
  return 0;
}

int FaultFilesystem::Create(const char* path, mode_t mode, fuse_file_info* fi) {
  Target t;
  if (int r = ResolveTarget(path, t)) return r;
  struct stat st {};
  if (lstat(t.backing.c_str(), &st) == 0) {
    if (fi->flags & O_EXCL) return -EEXIST;
    return OpenHandle(t.backing, fi->flags, mode, fi);
  }
  if (int r = CheckName(t.name, Is(Fault::kLongNames))) return r;
  ino_t parent;
  if (int r = DirectoryInode(t.parent, parent)) return r;
  uint64_t slots = EntrySlots(t.name);
  if (!m_space.FitsEntry(parent, slots, 0)) return -ENOSPC;
  if (int r = OpenHandle(t.backing, fi->flags, mode, fi)) return r;
  m_space.AddEntry(parent, slots);
  if (Is(Fault::kLoseEntry) && m_space.EntryCount(parent) >= m_config.lose_after &&
      m_lost_in.insert(parent).second) {
    // The new entry is dropped from the directory; the caller's descriptor
    // still works, but the name is gone.
    unlink(t.backing.c_str());
    m_space.RemoveEntry(parent, slots);
  }
  return 0;
}

int FaultFilesystem::MkNod(const char* path, mode_t mode) {
  if (!S_ISREG(mode)) return -EPERM;  // exFAT stores regular files and directories only
  fuse_file_info fi {};
  fi.flags = O_WRONLY | O_CREAT | O_EXCL;
  if (int r = Create(path, mode & 07777, &fi)) return r;
  return Release(&fi);
}

int FaultFilesystem::Open(const char* path, fuse_file_info* fi) {
  std::string backing;
  if (int r = Resolve(path, backing)) return r;
  return OpenHandle(backing, fi->flags, 0, fi);
}

int FaultFilesystem::Read(char* buf, size_t size, off_t offset, fuse_file_info* fi) {
  ssize_t n = pread(HandleOf(fi).fd.Get(), buf, size, offset);
  return n < 0 ? -errno : static_cast<int>(n);
}

int FaultFilesystem::Write(const char* buf, size_t size, off_t offset, fuse_file_info* fi) {
  Handle& handle = HandleOf(fi);
  int fd = handle.fd.Get();
  struct stat before {};
  if (fstat(fd, &before) != 0) return -errno;
  uint64_t old_size = static_cast<uint64_t>(before.st_size);
  uint64_t at = (handle.flags & O_APPEND) ? old_size : static_cast<uint64_t>(offset);
  bool counted = S_ISREG(before.st_mode) && before.st_nlink > 0;
  if (counted && at + size > old_size) {
    // Write what fits, as a full exFAT volume does; nothing fits: ENOSPC.
    uint64_t limit = m_space.FileEndLimit(old_size);
    if (at >= limit) return -ENOSPC;
    size = static_cast<size_t>(std::min<uint64_t>(size, limit - at));
  }
  ssize_t n = pwrite(fd, buf, size, static_cast<off_t>(at));
  if (n < 0) return -errno;
  if (counted) m_space.Resize(old_size, std::max(old_size, at + static_cast<uint64_t>(n)));
  m_reported_size.erase(before.st_ino);
  if (Is(Fault::kSharedCluster)) ShareWrite(fd, before.st_ino, buf, static_cast<size_t>(n), at);
  return static_cast<int>(n);
}

int FaultFilesystem::Truncate(const char* path, off_t size, fuse_file_info* fi) {
  ScopedFd own;
  int fd;
  if (fi != nullptr) {
    fd = HandleOf(fi).fd.Get();
  } else {
    std::string backing;
    if (int r = Resolve(path, backing)) return r;
    own = ScopedFd(open(backing.c_str(), O_RDWR | O_CLOEXEC));
    if (!own.IsOpen()) return -errno;
    fd = own.Get();
  }
  if (size < 0) return -EINVAL;
  struct stat before {};
  if (fstat(fd, &before) != 0) return -errno;
  if (!S_ISREG(before.st_mode)) return -EINVAL;
  uint64_t old_size = static_cast<uint64_t>(before.st_size), new_size = static_cast<uint64_t>(size);
  bool counted = before.st_nlink > 0;
  if (counted && !m_space.FitsResize(old_size, new_size)) return -ENOSPC;
  if (Is(Fault::kStaleExtend) && new_size < old_size) SaveTail(fd, before.st_ino, new_size, old_size);
  if (ftruncate(fd, size) != 0) return -errno;
  if (counted) m_space.Resize(old_size, new_size);
  if (Is(Fault::kStaleExtend) && new_size > old_size)
    RestoreTail(fd, before.st_ino, old_size, new_size);
  if (Is(Fault::kWrongTruncateSize)) m_reported_size[before.st_ino] = old_size;
  if (Is(Fault::kTruncateFreesWrong) &&
      m_space.ClustersFor(new_size) < m_space.ClustersFor(old_size))
    DamageNeighbour(fd, before.st_ino, new_size);
  return 0;
}

int FaultFilesystem::Fallocate(int mode, off_t offset, off_t length, fuse_file_info* fi) {
  if (mode != 0) return -EOPNOTSUPP;
  if (offset < 0 || length <= 0) return -EINVAL;
  int fd = HandleOf(fi).fd.Get();
  struct stat before {};
  if (fstat(fd, &before) != 0) return -errno;
  uint64_t old_size = static_cast<uint64_t>(before.st_size);
  uint64_t end = static_cast<uint64_t>(offset) + static_cast<uint64_t>(length);
  bool counted = S_ISREG(before.st_mode) && before.st_nlink > 0;
  if (counted && !m_space.FitsResize(old_size, end)) return -ENOSPC;
  if (int err = posix_fallocate(fd, offset, length)) return -err;
  if (counted) m_space.Resize(old_size, std::max(old_size, end));
  m_reported_size.erase(before.st_ino);
  return 0;
}

int FaultFilesystem::Fsync(int datasync, fuse_file_info* fi) {
  int fd = HandleOf(fi).fd.Get();
  return (datasync ? fdatasync(fd) : fsync(fd)) != 0 ? -errno : 0;
}

int FaultFilesystem::Release(fuse_file_info* fi) {
  delete reinterpret_cast<Handle*>(fi->fh);
  fi->fh = 0;
  return 0;
}

int FaultFilesystem::StatFs(struct statvfs* st) {
  *st = {};
  st->f_bsize = m_space.ClusterBytes();
  st->f_frsize = m_space.ClusterBytes();
  st->f_blocks = m_space.TotalClusters();
  st->f_bfree = m_space.FreeClusters();
  st->f_bavail = m_space.FreeClusters();
  st->f_files = m_space.TotalClusters();
  st->f_ffree = m_space.FreeClusters();
  st->f_namemax = Is(Fault::kLongNames) ? 1024 : kMaxNameUnits;
  return 0;
}

int FaultFilesystem::Chmod(const char* path, mode_t mode, fuse_file_info* fi) {
  if (fi != nullptr) return fchmod(HandleOf(fi).fd.Get(), mode) != 0 ? -errno : 0;
  std::string backing;
  if (int r = Resolve(path, backing)) return r;
  return chmod(backing.c_str(), mode) != 0 ? -errno : 0;
}

int FaultFilesystem::Chown(const char* path, uid_t uid, gid_t gid, fuse_file_info* fi) {
  if (fi != nullptr) return fchown(HandleOf(fi).fd.Get(), uid, gid) != 0 ? -errno : 0;
  std::string backing;
  if (int r = Resolve(path, backing)) return r;
  return lchown(backing.c_str(), uid, gid) != 0 ? -errno : 0;
}

int FaultFilesystem::Utimens(const char* path, const struct timespec tv[2], fuse_file_info* fi) {
  if (fi != nullptr) return futimens(HandleOf(fi).fd.Get(), tv) != 0 ? -errno : 0;
  std::string backing;
  if (int r = Resolve(path, backing)) return r;
  return utimensat(AT_FDCWD, backing.c_str(), tv, AT_SYMLINK_NOFOLLOW) != 0 ? -errno : 0;
}

// stale-extend: remember what a shrink cut off ...
void FaultFilesystem::SaveTail(int fd, ino_t ino, uint64_t from, uint64_t to) {
  Tail tail;
  tail.start = from;
  tail.bytes.resize(static_cast<size_t>(std::min(to - from, kMaxTail)));
  ssize_t n = pread(fd, tail.bytes.data(), tail.bytes.size(), static_cast<off_t>(from));
  tail.bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
  m_tails[ino] = std::move(tail);
}

// ... and show it again where a later growth should have put zeros.
void FaultFilesystem::RestoreTail(int fd, ino_t ino, uint64_t from, uint64_t to) {
  auto found = m_tails.find(ino);
  if (found == m_tails.end()) return;
  const Tail& tail = found->second;
  uint64_t begin = std::max(from, tail.start);
  uint64_t end = std::min(to, tail.start + tail.bytes.size());
  if (begin >= end) return;
  if (pwrite(fd, tail.bytes.data() + (begin - tail.start), end - begin,
             static_cast<off_t>(begin)) < 0)
    perror("faultfs: stale-extend");
}

// truncate-frees-wrong: the cluster the shrink should have freed is taken
// from the largest other file in the same directory instead, and zeroed.
void FaultFilesystem::DamageNeighbour(int fd, ino_t ino, uint64_t new_size) {
  std::string dir_path = DirName(CurrentPath(fd));
  DirPtr dir(opendir(dir_path.c_str()));
  if (!dir) return;
  std::string victim;
  uint64_t victim_size = 0;
  while (dirent* entry = readdir(dir.get())) {
    std::string path = dir_path + "/" + entry->d_name;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_ino == ino) continue;
    uint64_t size = static_cast<uint64_t>(st.st_size);
    if (size > victim_size || (size == victim_size && size > 0 && path < victim)) {
      victim = path;
      victim_size = size;
    }
  }
  if (victim_size == 0) return;
  uint64_t cluster = m_space.ClusterBytes();
  uint64_t index = std::min(m_space.ClustersFor(new_size), m_space.ClustersFor(victim_size) - 1);
  uint64_t offset = index * cluster;
  std::vector<char> zeros(static_cast<size_t>(std::min(cluster, victim_size - offset)), 0);
  ScopedFd out(open(victim.c_str(), O_WRONLY | O_CLOEXEC));
  if (!out.IsOpen() || pwrite(out.Get(), zeros.data(), zeros.size(), static_cast<off_t>(offset)) < 0)
    perror("faultfs: truncate-frees-wrong");
}

// shared-cluster: the file written before this one shares its clusters, so
// this write lands there too (at the same offset, wrapped into its size).
void FaultFilesystem::ShareWrite(int fd, ino_t ino, const char* buf, size_t length,
                                 uint64_t offset) {
  if (m_last_written.ino != ino) {
    m_partner = m_last_written;
    m_last_written = Written{ino, CurrentPath(fd)};
  }
  if (m_partner.ino == 0 || m_partner.ino == ino || length == 0) return;
  ScopedFd partner(open(m_partner.backing.c_str(), O_RDWR | O_CLOEXEC));
  struct stat st {};
  if (!partner.IsOpen() || fstat(partner.Get(), &st) != 0 || st.st_ino != m_partner.ino ||
      st.st_size == 0)
    return;
  uint64_t size = static_cast<uint64_t>(st.st_size);
  uint64_t at = offset % size;
  size_t n = static_cast<size_t>(std::min<uint64_t>(length, size - at));
  if (pwrite(partner.Get(), buf, n, static_cast<off_t>(at)) < 0) perror("faultfs: shared-cluster");
}

}  // namespace faultfs
