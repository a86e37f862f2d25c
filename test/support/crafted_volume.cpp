#include "crafted_volume.h"

#include <stdexcept>

namespace testsupport {

CraftedDir VolumeCrafter::Root() const { return {m_layout.Geometry().root_cluster, false, 0}; }

CraftedSet VolumeCrafter::Place(const CraftedDir& dir, const std::vector<RawEntry>& set,
                                const std::u16string& name, int64_t slot) {
  const uint64_t index = slot >= 0 ? static_cast<uint64_t>(slot)
                                   : m_layout.FirstFreeSlot(dir.first_cluster, dir.no_fat_chain,
                                                            dir.data_length);
  m_layout.WriteEntrySet(dir.first_cluster, index, set, dir.no_fat_chain, dir.data_length);
  CraftedSet crafted;
  crafted.name = name;
  for (size_t k = 0; k < set.size(); ++k)
    crafted.entry_offsets.push_back(
        m_layout.SlotOffset(dir.first_cluster, index + k, dir.no_fat_chain, dir.data_length));
  return crafted;
}

CraftedSet VolumeCrafter::AddFile(const CraftedDir& dir, const std::u16string& name,
                                  size_t clusters, bool fragmented, bool no_fat_chain) {
  std::vector<uint64_t> chosen;
  if (fragmented) {
    std::vector<uint64_t> free = m_layout.FreeClusters(2 * clusters);
    for (size_t i = 0; i < clusters; ++i) chosen.push_back(free.at(2 * i));
    m_layout.AllocateChain(chosen, no_fat_chain);
  } else {
    chosen = m_layout.Allocate(clusters, true, no_fat_chain);
  }
  const uint64_t length = clusters * m_layout.Geometry().ClusterBytes() - 1;
  EntrySetSpec spec{name, kAttrArchive, static_cast<uint32_t>(chosen.at(0)), length, length,
                    no_fat_chain};
  CraftedSet crafted = Place(dir, BuildEntrySet(spec), name);
  crafted.clusters = chosen;
  return crafted;
}

CraftedSet VolumeCrafter::AddDirectory(const CraftedDir& dir, const std::u16string& name,
                                       CraftedDir& out, uint64_t valid) {
  std::vector<uint64_t> cluster = m_layout.Allocate(1, true, false);
  const uint64_t bytes = m_layout.Geometry().ClusterBytes();
  m_layout.Write(m_layout.ClusterOffset(cluster[0]), std::vector<uint8_t>(bytes, 0));
  EntrySetSpec spec{name, kAttrDirectory, static_cast<uint32_t>(cluster[0]), bytes,
                    valid == 0 ? bytes : valid, false};
  CraftedSet crafted = Place(dir, BuildEntrySet(spec), name);
  crafted.clusters = cluster;
  out = CraftedDir{cluster[0], false, bytes};
  return crafted;
}

uint64_t VolumeCrafter::ExtendDirectory(const CraftedDir& dir) {
  if (dir.no_fat_chain) throw std::logic_error("only FAT-chained directories can be extended");
  std::vector<uint64_t> chain = m_layout.FatChain(dir.first_cluster);
  std::vector<uint64_t> added = m_layout.Allocate(1, true, false);
  m_layout.Write(m_layout.ClusterOffset(added[0]),
                 std::vector<uint8_t>(m_layout.Geometry().ClusterBytes(), 0));
  m_layout.WriteFat(chain.back(), static_cast<uint32_t>(added[0]));
  return added[0];
}

void VolumeCrafter::FillUnused(const CraftedDir& dir, uint64_t from, uint64_t to) {
  RawEntry unused{};
  unused[0] = kEntryFile & 0x7F;
  for (uint64_t i = from; i < to; ++i)
    m_layout.WriteEntry(m_layout.SlotOffset(dir.first_cluster, i, dir.no_fat_chain, dir.data_length),
                        unused);
}

std::vector<uint8_t> WithEntriesDeleted(std::vector<uint8_t> before,
                                        const std::vector<CraftedSet>& sets) {
  for (const CraftedSet& set : sets)
    for (uint64_t offset : set.entry_offsets) before.at(offset) &= 0x7F;
  return before;
}

}  // namespace testsupport
