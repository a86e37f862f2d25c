#pragma once

#include <fuse.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "fault_config.h"
#include "name_map.h"
#include "space_account.h"

namespace faultfs {

// A pass-through filesystem over a backing directory that keeps exFAT's
// rules (name length and characters, capacity in clusters, ENOSPC) and
// breaks exactly one of them, or one of its data guarantees, on request.
// Operations return 0 or a byte count on success and -errno on failure, as
// FUSE expects.
class FaultFilesystem {
 public:
  FaultFilesystem(std::string backing_root, FaultConfig config);

  // Learns what the backing directory already holds.
  void Scan();
  std::mutex& Mutex() { return m_mutex; }

  int GetAttr(const char* path, struct stat* st, fuse_file_info* fi);
  int ReadDir(const char* path, void* buf, fuse_fill_dir_t filler);
  int MkDir(const char* path, mode_t mode);
  int RmDir(const char* path);
  int Unlink(const char* path);
  int Rename(const char* from, const char* to, unsigned int flags);
  int Create(const char* path, mode_t mode, fuse_file_info* fi);
  int MkNod(const char* path, mode_t mode);
  int Open(const char* path, fuse_file_info* fi);
  int Read(char* buf, size_t size, off_t offset, fuse_file_info* fi);
  int Write(const char* buf, size_t size, off_t offset, fuse_file_info* fi);
  int Truncate(const char* path, off_t size, fuse_file_info* fi);
  int Fallocate(int mode, off_t offset, off_t length, fuse_file_info* fi);
  int Fsync(int datasync, fuse_file_info* fi);
  int Release(fuse_file_info* fi);
  int StatFs(struct statvfs* st);
  int Chmod(const char* path, mode_t mode, fuse_file_info* fi);
  int Chown(const char* path, uid_t uid, gid_t gid, fuse_file_info* fi);
  int Utimens(const char* path, const struct timespec tv[2], fuse_file_info* fi);

 private:
  // A path split into its parent's backing path and its last name.
  struct Target {
    std::string parent;   // backing path of the parent directory
    std::string name;     // the last component as the user named it
    std::string backing;  // backing path of the whole path
  };
  // A file last written to, for the shared-cluster fault.
  struct Written {
    ino_t ino = 0;
    std::string backing;
  };
  // Bytes cut off by the last shrinking truncation, for the stale-extend fault.
  struct Tail {
    uint64_t start = 0;
    std::vector<char> bytes;
  };

  bool Is(Fault fault) const { return m_config.fault == fault; }
  bool LongLookups() const;
  int Resolve(const char* path, std::string& backing);
  int ResolveTarget(const char* path, Target& target);
  int CheckName(const std::string& name, bool allow_long) const;
  int DirectoryInode(const std::string& backing_dir, ino_t& ino);
  void ScanDirectory(const std::string& backing_dir, bool recursive);
  int OpenHandle(const std::string& backing, int flags, mode_t mode, fuse_file_info* fi);
  void Present(struct stat* st) const;
  void Forget(ino_t ino);

  void SaveTail(int fd, ino_t ino, uint64_t from, uint64_t to);
  void RestoreTail(int fd, ino_t ino, uint64_t from, uint64_t to);
  void DamageNeighbour(int fd, ino_t ino, uint64_t new_size);
  void ShareWrite(int fd, ino_t ino, const char* buf, size_t length, uint64_t offset);

  std::mutex m_mutex;
  std::string m_root;
  FaultConfig m_config;
  NameMap m_names;
  SpaceAccount m_space;
  std::map<ino_t, uint64_t> m_reported_size;  // wrong-truncate-size
  std::map<ino_t, Tail> m_tails;              // stale-extend
  std::set<ino_t> m_lost_in;                  // lose-entry: directories that lost one
  Written m_last_written, m_partner;          // shared-cluster
};

}  // namespace faultfs
