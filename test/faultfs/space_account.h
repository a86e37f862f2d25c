#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>

namespace faultfs {

// The capacity of the emulated volume in clusters, as exFAT spends it: a
// regular file holds ceil(size / cluster) clusters (exFAT has no holes), a
// directory holds enough clusters for the 32-byte entries of its names and
// never shrinks while it exists.
class SpaceAccount {
 public:
  SpaceAccount(uint64_t capacity_bytes, uint64_t cluster_bytes, bool enforce);

  uint64_t ClusterBytes() const { return m_cluster; }
  uint64_t TotalClusters() const { return m_total; }
  uint64_t UsedClusters() const { return m_used; }
  uint64_t FreeClusters() const { return m_used >= m_total ? 0 : m_total - m_used; }
  uint64_t ClustersFor(uint64_t bytes) const { return (bytes + m_cluster - 1) / m_cluster; }
  bool Enforced() const { return m_enforce; }

  // File data.
  bool FitsResize(uint64_t old_bytes, uint64_t new_bytes) const;
  // The largest file end that fits for a file now `old_bytes` long.
  uint64_t FileEndLimit(uint64_t old_bytes) const;
  void Resize(uint64_t old_bytes, uint64_t new_bytes);

  // Directories, keyed by the backing inode number.
  bool KnowsDirectory(ino_t dir) const { return m_directories.count(dir) != 0; }
  void AddDirectory(ino_t dir, uint64_t entries, uint64_t slots);
  void RemoveDirectory(ino_t dir);
  // Whether `parent` can take `slots` more entries (its own growth plus
  // `extra_clusters` for a new directory's first cluster).
  bool FitsEntry(ino_t parent, uint64_t slots, uint64_t extra_clusters) const;
  void AddEntry(ino_t parent, uint64_t slots);
  void RemoveEntry(ino_t parent, uint64_t slots);
  uint64_t EntryCount(ino_t parent) const;

 private:
  struct Directory {
    uint64_t entries = 0;
    uint64_t slots = 0;
    uint64_t clusters = 0;
  };
  uint64_t ClustersForSlots(uint64_t slots) const;
  uint64_t Growth(const Directory& dir, uint64_t more_slots) const;

  uint64_t m_cluster;
  uint64_t m_total;
  uint64_t m_used = 0;
  bool m_enforce;
  std::map<ino_t, Directory> m_directories;
};

}  // namespace faultfs
