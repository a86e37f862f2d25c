#include "space_account.h"

#include <algorithm>

namespace faultfs {
namespace {

constexpr uint64_t kEntryBytes = 32;

}  // namespace

SpaceAccount::SpaceAccount(uint64_t capacity_bytes, uint64_t cluster_bytes, bool enforce)
    : m_cluster(cluster_bytes), m_total(capacity_bytes / cluster_bytes), m_enforce(enforce) {}

bool SpaceAccount::FitsResize(uint64_t old_bytes, uint64_t new_bytes) const {
  if (!m_enforce || new_bytes <= old_bytes) return true;
  return ClustersFor(new_bytes) - ClustersFor(old_bytes) <= FreeClusters();
}

uint64_t SpaceAccount::FileEndLimit(uint64_t old_bytes) const {
  if (!m_enforce) return ~0ull;
  return (ClustersFor(old_bytes) + FreeClusters()) * m_cluster;
}

void SpaceAccount::Resize(uint64_t old_bytes, uint64_t new_bytes) {
  uint64_t before = ClustersFor(old_bytes), after = ClustersFor(new_bytes);
  if (after >= before)
    m_used += after - before;
  else
    m_used -= std::min(m_used, before - after);
}

uint64_t SpaceAccount::ClustersForSlots(uint64_t slots) const {
  return std::max<uint64_t>(1, (slots * kEntryBytes + m_cluster - 1) / m_cluster);
}

uint64_t SpaceAccount::Growth(const Directory& dir, uint64_t more_slots) const {
  uint64_t needed = ClustersForSlots(dir.slots + more_slots);
  return needed > dir.clusters ? needed - dir.clusters : 0;
}

void SpaceAccount::AddDirectory(ino_t dir, uint64_t entries, uint64_t slots) {
  Directory& d = m_directories[dir];
  d.entries = entries;
  d.slots = slots;
  d.clusters = ClustersForSlots(slots);
  m_used += d.clusters;
}

void SpaceAccount::RemoveDirectory(ino_t dir) {
  auto found = m_directories.find(dir);
  if (found == m_directories.end()) return;
  m_used -= std::min(m_used, found->second.clusters);
  m_directories.erase(found);
}

bool SpaceAccount::FitsEntry(ino_t parent, uint64_t slots, uint64_t extra_clusters) const {
  if (!m_enforce) return true;
  auto found = m_directories.find(parent);
  uint64_t growth = found == m_directories.end() ? 0 : Growth(found->second, slots);
  return growth + extra_clusters <= FreeClusters();
}

void SpaceAccount::AddEntry(ino_t parent, uint64_t slots) {
  auto found = m_directories.find(parent);
  if (found == m_directories.end()) return;
  Directory& d = found->second;
  uint64_t growth = Growth(d, slots);
  d.clusters += growth;
  m_used += growth;
  d.slots += slots;
  d.entries += 1;
}

void SpaceAccount::RemoveEntry(ino_t parent, uint64_t slots) {
  auto found = m_directories.find(parent);
  if (found == m_directories.end()) return;
  Directory& d = found->second;
  d.slots -= std::min(d.slots, slots);
  if (d.entries > 0) d.entries -= 1;
}

uint64_t SpaceAccount::EntryCount(ino_t parent) const {
  auto found = m_directories.find(parent);
  return found == m_directories.end() ? 0 : found->second.entries;
}

}  // namespace faultfs
