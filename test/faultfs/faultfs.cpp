// faultfs: passes a backing directory (on a real exFAT mount) through FUSE
// unchanged, or breaks exactly one of the volume's rules, so that each
// volume test can be shown to fail on the fault it exists to find.
//
//   faultfs [--fault=NAME[=ARG]] [--unmount-backing] <backing-dir> <mount-point> [FUSE options]
//
// With --unmount-backing, the backing directory is a mount of its own that
// faultfs unmounts as it ends, so that the two stacked mounts come and go
// as one (a stand-in for mount.exfat-fuse stacks it over exfat-fuse).
//
// Space, ENOSPC, statvfs and the name rules all come from the backing
// volume. Entries the volume would refuse (over-long or forbidden names, or
// no space left) live under another backing path, kept in one in-memory map
// from the caller's path; those that do not fit go to a spill directory
// outside the volume, removed at unmount.
#include <dirent.h>
#include <fcntl.h>
#include <fuse.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

enum Fault { kNone, kStaleExtend, kForeignExtend, kWrongTruncateSize, kNoEnospc,
             kTruncateFreesWrong, kTruncateZeroesKept, kLongNames, kBadChars, kRenameLong,
             kLoseEntry, kSharedCluster, kWrongStatSize, kStaleWriteSize, kOtherBytes, kReadErrors };
const char* const kFaultNames[] = {"none", "stale-extend", "foreign-extend",
    "wrong-truncate-size", "no-enospc", "truncate-frees-wrong", "truncate-zeroes-kept", "long-names", "bad-chars",
    "rename-long", "lose-entry", "shared-cluster", "wrong-stat-size", "stale-write-size", "other-bytes",
    "read-errors"};
static_assert(std::size(kFaultNames) == kReadErrors + 1);

Fault fault = kNone;
std::string bad_chars = "?|*:<>";  // bad-chars: the forbidden characters let through
long lose_nth = 200;               // lose-entry: which creation in a directory is lost
bool cut_names = false;            // rename-long=cut: a long new name keeps its first 255 bytes
bool past_end_only = false;        // stale-write-size=past-end: only writes that leave a hole
long other_from = 2;               // other-bytes: from which open of a file on
std::string root, spill;           // the backing directory; no-enospc's spill directory
std::map<std::string, std::string> names;  // caller's path -> backing path, where not root + path
long next_name = 0;

// Per fault state, keyed by backing path.
// wrong-truncate-size, stale-write-size: the size stat keeps showing
std::map<std::string, off_t> stale_size;
std::string tail_of;                      // stale-extend: the file a shrink cut last,
off_t tail_at = 0;                        // where it cut,
std::vector<char> tail;                   // and the bytes cut off
std::map<std::string, long> created;      // lose-entry: files created per directory
std::string last_written, partner;        // shared-cluster
std::map<std::string, long> opened;       // other-bytes: opens per file

// An open file; `other` when its reads serve other bytes (other-bytes).
struct Handle { int fd; bool append; std::string path, backing; bool other = false; };
Handle& H(fuse_file_info* fi) { return *reinterpret_cast<Handle*>(fi->fh); }

std::string Parent(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}
std::string Base(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string Backing(const std::string& path) {
  if (path == "/") return root;
  auto found = names.find(path);
  return found != names.end() ? found->second : Backing(Parent(path)) + "/" + Base(path);
}

// Where a new entry goes: names the volume refuses, when the fault lets
// them through, are stored under a short name beside their siblings.
bool LetThrough(const std::string& name, bool renaming) {
  if (name.size() > 255) return fault == kLongNames || (fault == kRenameLong && renaming);
  return fault == kBadChars && name.find_first_of(bad_chars) != std::string::npos;
}

std::string NewBacking(const std::string& path, bool renaming) {
  if (names.count(path) || !LetThrough(Base(path), renaming)) return Backing(path);
  return Backing(Parent(path)) + "/.faultfs-" + std::to_string(++next_name);
}

std::string SpillPath() {
  char dir[] = "/tmp/faultfs-spill-XXXXXX";
  if (spill.empty() && mkdtemp(dir)) spill = dir;
  return spill.empty() ? std::string() : spill + "/" + std::to_string(++next_name);
}

void Remember(const std::string& path, const std::string& backing) {
  if (backing != Backing(path)) names[path] = backing;
}

int Fail(int result) { return result < 0 ? -errno : result; }

int BackingFlags(int flags) { return (flags & ~(O_ACCMODE | O_APPEND)) | O_RDWR | O_CLOEXEC; }

int NewHandle(int fd, const std::string& path, const std::string& backing, fuse_file_info* fi) {
  if (fd < 0) return -errno;
  fi->fh = reinterpret_cast<uint64_t>(new Handle{fd, (fi->flags & O_APPEND) != 0, path, backing});
  return 0;
}

off_t SizeOf(int fd) {
  struct stat st {};
  return fstat(fd, &st) == 0 ? st.st_size : 0;
}

void Report(const char* what, ssize_t result) {
  if (result < 0) fprintf(stderr, "faultfs: %s: %s\n", what, strerror(errno));
}

// no-enospc: a file that no longer fits moves out to the spill directory,
// under the caller's same descriptor.
int SpillFile(Handle& h) {
  std::string to = SpillPath();
  std::error_code error;
  std::filesystem::copy_file(h.backing, to, error);
  int out = error ? -1 : open(to.c_str(), O_RDWR | O_CLOEXEC);
  if (out < 0) return -ENOSPC;
  int moved = dup2(out, h.fd);
  close(out);
  if (moved < 0) return -errno;
  unlink(h.backing.c_str());
  names[h.path] = h.backing = to;
  return 0;
}

// shared-cluster: the file written before this one shares its clusters, so
// the write lands there too, at the same offset wrapped into its size.
void ShareWrite(const Handle& h, const char* buf, size_t size, off_t offset) {
  if (h.backing != last_written) partner = std::exchange(last_written, h.backing);
  int fd = partner.empty() ? -1 : open(partner.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return;
  off_t partner_size = SizeOf(fd);
  off_t at = partner_size > 0 ? offset % partner_size : 0;
  if (partner_size > 0)
    Report("shared-cluster", pwrite(fd, buf, std::min<size_t>(size, partner_size - at), at));
  close(fd);
}

// truncate-frees-wrong: the cluster the shrink should have freed is taken
// from the largest other file in the same directory instead, and zeroed.
void DamageNeighbour(const std::string& path, const std::string& backing, off_t new_size,
                     off_t cluster) {
  std::string dir = Backing(Parent(path)), victim;
  off_t victim_size = 0;
  if (DIR* d = opendir(dir.c_str())) {
    for (struct stat st {}; dirent* entry = readdir(d);) {
      std::string other = dir + "/" + entry->d_name;
      if (other != backing && lstat(other.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
          st.st_size > victim_size)
        victim = other, victim_size = st.st_size;
    }
    closedir(d);
  }
  if (victim_size == 0) return;
  off_t at = std::min((new_size + cluster - 1) / cluster, (victim_size - 1) / cluster) * cluster;
  std::vector<char> zeros(static_cast<size_t>(std::min(cluster, victim_size - at)));
  int fd = open(victim.c_str(), O_WRONLY | O_CLOEXEC);
  Report("truncate-frees-wrong", fd < 0 ? -1 : pwrite(fd, zeros.data(), zeros.size(), at));
  if (fd >= 0) close(fd);
}

int GetAttr(const char* path, struct stat* st, fuse_file_info* fi) {
  std::string backing = fi ? H(fi).backing : Backing(path);
  if ((fi ? fstat(H(fi).fd, st) : lstat(backing.c_str(), st)) != 0)
    return errno == ENAMETOOLONG && LetThrough(Base(path), true) ? -ENOENT : -errno;
  auto stale = stale_size.find(backing);
  if (stale != stale_size.end() && S_ISREG(st->st_mode)) st->st_size = stale->second;
  // wrong-stat-size: stat and lstat by path show a file one byte longer
  // than its data, as a driver that sizes a file by the wrong one of its
  // two lengths would. By open file (fstat, and the kernel's own look
  // before an appending write) the size is right, so the data stays whole.
  if (fault == kWrongStatSize && !fi && S_ISREG(st->st_mode)) st->st_size += 1;
  return 0;
}

int ReadDir(const char* path, void* buf, fuse_fill_dir_t fill, off_t, fuse_file_info*,
            fuse_readdir_flags) {
  std::string backing = Backing(path);
  DIR* d = opendir(backing.c_str());
  if (!d) return -errno;
  std::set<std::string> moved;
  for (const auto& entry : names) moved.insert(entry.second);
  while (dirent* entry = readdir(d))
    if (!moved.count(backing + "/" + entry->d_name))
      fill(buf, entry->d_name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  closedir(d);
  for (const auto& entry : names)
    if (Parent(entry.first) == path)
      fill(buf, Base(entry.first).c_str(), nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  return 0;
}

int MkDir(const char* path, mode_t mode) {
  std::string backing = NewBacking(path, false);
  if (mkdir(backing.c_str(), mode) != 0) {
    if (errno != ENOSPC || fault != kNoEnospc) return -errno;
    backing = SpillPath();
    if (mkdir(backing.c_str(), mode) != 0) return -errno;
  }
  Remember(path, backing);
  return 0;
}

int Remove(const char* path, int (*remove)(const char*)) {
  if (remove(Backing(path).c_str()) != 0) return -errno;
  names.erase(path);
  return 0;
}

int Rename(const char* from, const char* to, unsigned int flags) {
  std::string backing = NewBacking(to, true), name = Base(to);
  bool cut = cut_names && name.size() > 255;
  if (cut) backing = Backing(Parent(to)) + "/" + name.substr(0, 255);
  if (renameat2(AT_FDCWD, Backing(from).c_str(), AT_FDCWD, backing.c_str(), flags) != 0)
    return -errno;
  names.erase(from);
  if (!cut) Remember(to, backing);
  return 0;
}

int Create(const char* path, mode_t mode, fuse_file_info* fi) {
  std::string backing = NewBacking(path, false);
  int fd = open(backing.c_str(), BackingFlags(fi->flags) | O_CREAT, mode);
  if (fd < 0 && errno == ENOSPC && fault == kNoEnospc)
    fd = open((backing = SpillPath()).c_str(), BackingFlags(fi->flags) | O_CREAT, mode);
  if (int r = NewHandle(fd, path, backing, fi)) return r;
  Remember(path, backing);
  // lose-entry: the directory drops the new entry; the caller's descriptor still works.
  if (fault == kLoseEntry && ++created[Backing(Parent(path))] == lose_nth) {
    unlink(backing.c_str());
    names.erase(path);
  }
  return 0;
}

int Open(const char* path, fuse_file_info* fi) {
  std::string backing = Backing(path);
  if (int r = NewHandle(open(backing.c_str(), BackingFlags(fi->flags)), path, backing, fi)) return r;
  H(fi).other = fault == kOtherBytes && ++opened[backing] >= other_from;
  return 0;
}

// other-bytes: from the chosen open of a file on, its first byte reads
// inverted, as from a card whose reads are not stable; read-errors: every
// read of a file fails, as from a card that cannot read its data.
int Read(const char*, char* buf, size_t size, off_t offset, fuse_file_info* fi) {
  if (fault == kReadErrors) return -EIO;
  ssize_t n = pread(H(fi).fd, buf, size, offset);
  if (n > 0 && offset == 0 && H(fi).other) buf[0] = static_cast<char>(~buf[0]);
  return Fail(static_cast<int>(n));
}

int Write(const char*, const char* buf, size_t size, off_t offset, fuse_file_info* fi) {
  Handle& h = H(fi);
  if (h.append) offset = SizeOf(h.fd);
  const off_t old = SizeOf(h.fd);
  ssize_t n = pwrite(h.fd, buf, size, offset);
  if (n < 0 && errno == ENOSPC && fault == kNoEnospc && h.backing.rfind(root + "/", 0) == 0) {
    if (int r = SpillFile(h)) return r;
    n = pwrite(h.fd, buf, size, offset);
  }
  if (n < 0) return -errno;
  stale_size.erase(h.backing);
  // stale-write-size: a write that grows the file leaves stat showing the
  // size before it (=past-end: only a write that starts past the end).
  if (fault == kStaleWriteSize && offset + n > old && (!past_end_only || offset > old))
    stale_size[h.backing] = old;
  if (fault == kSharedCluster) ShareWrite(h, buf, static_cast<size_t>(n), offset);
  return static_cast<int>(n);
}

int Truncate(const char* path, off_t size, fuse_file_info* fi) {
  std::string backing = fi ? H(fi).backing : Backing(path);
  int fd = fi ? H(fi).fd : open(backing.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return -errno;
  off_t old = SizeOf(fd);
  if (fault == kStaleExtend && size < old) {
    tail.resize(static_cast<size_t>(old - size));
    ssize_t n = pread(fd, tail.data(), tail.size(), size);
    tail.resize(static_cast<size_t>(std::max<ssize_t>(0, n)));
    tail_of = backing, tail_at = size;
  }
  int result = ftruncate(fd, size) != 0 ? -errno : 0;
  // The bytes a growth regains must read as zeros.
  off_t begin = std::max(old, tail_at), end = std::min<off_t>(size, tail_at + tail.size());
  if (result == 0 && fault == kStaleExtend && tail_of == backing && begin < end)
    Report("stale-extend", pwrite(fd, &tail[begin - tail_at], end - begin, begin));
  if (result == 0 && fault == kForeignExtend && size > old)
    Report("foreign-extend", pwrite(fd, std::string(size - old, '\xA5').data(), size - old, old));
  if (result == 0 && fault == kWrongTruncateSize && size != old) stale_size[backing] = old;
  if (result == 0 && fault == kStaleWriteSize) stale_size.erase(backing);
  struct statvfs vfs {};
  off_t cluster = statvfs(root.c_str(), &vfs) == 0 ? static_cast<off_t>(vfs.f_bsize) : 4096;
  if (result == 0 && fault == kTruncateFreesWrong &&
      (size + cluster - 1) / cluster < (old + cluster - 1) / cluster)
    DamageNeighbour(path, backing, size, cluster);
  // truncate-zeroes-kept: a shrink zeroes the kept part of the cluster
  // that now holds the file's end.
  if (result == 0 && fault == kTruncateZeroesKept && size < old && size > 0) {
    off_t from = (size - 1) / cluster * cluster;
    Report("truncate-zeroes-kept", pwrite(fd, std::string(size - from, '\0').data(), size - from, from));
  }
  if (!fi) close(fd);
  return result;
}

int Fallocate(const char*, int mode, off_t offset, off_t length, fuse_file_info* fi) {
  return Fail(fallocate(H(fi).fd, mode, offset, length));
}

int Fsync(const char*, int datasync, fuse_file_info* fi) {
  return Fail(datasync ? fdatasync(H(fi).fd) : fsync(H(fi).fd));
}

int Release(const char*, fuse_file_info* fi) {
  close(H(fi).fd);
  delete &H(fi);
  return 0;
}

int StatFs(const char*, struct statvfs* st) { return Fail(statvfs(root.c_str(), st)); }

int Chmod(const char* path, mode_t mode, fuse_file_info* fi) {
  return Fail(fi ? fchmod(H(fi).fd, mode) : chmod(Backing(path).c_str(), mode));
}

void* Init(fuse_conn_info*, fuse_config* config) {
  // Nothing cached in the kernel: every stat, lookup, read and write comes
  // here, so a fault shows at once.
  config->entry_timeout = config->attr_timeout = config->negative_timeout = 0;
  config->direct_io = 1;
  config->hard_remove = 1;
  return nullptr;
}

struct Options {
  char* fault = nullptr;
  char* backing = nullptr;
  int unmount_backing = 0;
};
const fuse_opt kOptions[] = {{"--fault=%s", offsetof(Options, fault), 0},
                             {"--unmount-backing", offsetof(Options, unmount_backing), 1}, FUSE_OPT_END};

// The first word that is not an option is the backing directory; the
// mount point and the rest go on to FUSE.
int TakeBacking(void* data, const char* arg, int key, fuse_args*) {
  auto* options = static_cast<Options*>(data);
  if (key != FUSE_OPT_KEY_NONOPT || options->backing) return 1;
  options->backing = realpath(arg, nullptr);
  return options->backing ? 0 : -1;
}

bool ParseFault(const std::string& text) {
  std::string name = text.substr(0, text.find('=')), arg;
  if (name.size() < text.size()) arg = text.substr(name.size() + 1);
  for (size_t i = 0; i < std::size(kFaultNames); ++i)
    if (name == kFaultNames[i]) fault = static_cast<Fault>(i);
  if (name != kFaultNames[fault]) return false;
  if (fault == kBadChars && !arg.empty()) bad_chars = arg;
  if (fault == kLoseEntry && !arg.empty()) lose_nth = atol(arg.c_str());
  cut_names = fault == kRenameLong && arg == "cut";
  past_end_only = fault == kStaleWriteSize && arg == "past-end";
  if (fault == kOtherBytes && !arg.empty()) other_from = atol(arg.c_str());
  return lose_nth > 0 && other_from > 0 &&
         (arg.empty() || fault == kBadChars || fault == kLoseEntry || fault == kOtherBytes || cut_names ||
          past_end_only);
}

}  // namespace

int main(int argc, char** argv) {
  fuse_args args = FUSE_ARGS_INIT(argc, argv);
  Options options;
  if (fuse_opt_parse(&args, &options, kOptions, TakeBacking) != 0 || !options.backing ||
      (options.fault && !ParseFault(options.fault))) {
    fprintf(stderr,
            "usage: %s [--fault=NAME[=ARG]] [--unmount-backing] <backing-dir> <mount-point> [FUSE options]\n",
            argv[0]);
    return 2;
  }
  root = options.backing;
  fuse_operations ops{};
  ops.getattr = GetAttr, ops.readdir = ReadDir, ops.mkdir = MkDir, ops.rename = Rename;
  ops.unlink = [](const char* path) { return Remove(path, unlink); };
  ops.rmdir = [](const char* path) { return Remove(path, rmdir); };
  ops.create = Create, ops.open = Open, ops.read = Read, ops.write = Write, ops.fsync = Fsync;
  ops.truncate = Truncate, ops.fallocate = Fallocate, ops.release = Release, ops.statfs = StatFs;
  ops.chmod = Chmod, ops.init = Init;
  ops.utimens = [](const char* path, const auto* times, fuse_file_info* fi) {
    return Fail(fi ? futimens(H(fi).fd, times)
                   : utimensat(AT_FDCWD, Backing(path).c_str(), times, 0));
  };
  ops.destroy = [](void*) {
    if (!spill.empty()) std::filesystem::remove_all(spill);
  };
  fuse_opt_add_arg(&args, "-s");
  fuse_opt_add_arg(&args, "-ofsname=faultfs,subtype=faultfs");
  int status = fuse_main(args.argc, args.argv, &ops, nullptr);
  fuse_opt_free_args(&args);
  // A FUSE backing mount takes the releases of the files faultfs closed
  // on its own time: it is busy for a moment after the last of them.
  for (int attempt = 0; options.unmount_backing; ++attempt) {
    if (umount2(root.c_str(), 0) == 0) break;
    if (errno != EBUSY || attempt == 100) {
      fprintf(stderr, "faultfs: unmounting %s: %s\n", root.c_str(), strerror(errno));
      return 1;
    }
    usleep(100 * 1000);
  }
  return status;
}
