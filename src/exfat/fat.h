#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "exfat/cluster_bitmap.h"
#include "exfat/device_handle.h"

class BootSector;

// The in-memory model of a volume's cluster bookkeeping: FAT entries through
// a one-sector write-through cache, cluster chains (through the FAT, or by
// counting for allocations without a FAT chain), the allocation bitmap as
// loaded from disk, a separate check bitmap that the directory scan fills
// with every cluster a valid chain reaches, and the expanded up-case table.
//
// A cluster c is in range when 2 <= c <= ClusterCount + 2: one more than the
// format allows, kept as the model's bound everywhere. Both bitmaps are sized
// so that the bit of ClusterCount + 2 is always addressable.
class Fat {
 public:
  static constexpr uint64_t kEndOfChain = 0xFFFFFFFF;
  static constexpr size_t kUpcaseTableEntries = 65536;
  // Every buffer holds one device sector: a volume sector of more bytes
  // than that is read as its first 512, and the rest of it, which no read
  // ever fills, reads as zeros.
  static constexpr size_t kSectorBytes = DeviceHandle::kDeviceModeSectorSize;


  // Reads the first FAT sector and checks entries 0 and 1 (throws
  // "Invalid FAT entry 0: ..." / "... 1: ..."), then sizes the check bitmap
  // and marks the root directory's first cluster in it.
  Fat(DeviceHandle& device, BootSector& boot_sector);
  virtual ~Fat() = default;
  Fat(const Fat&) = delete;
  Fat& operator=(const Fat&) = delete;

  uint64_t MaxCluster() const { return m_max_cluster; }
  bool InRange(uint64_t cluster) const { return cluster >= 2 && cluster <= m_max_cluster; }
  // "Invalid cluster: %lx (%lx total)\n" for `cluster`.
  void PrintInvalidCluster(uint64_t cluster) const;

  // Read errors go unnoticed: the cache keeps what it held.
  uint32_t ReadFatEntry(uint64_t cluster);
  // Writes the entry through to its FAT sector at once, whether or not that
  // sector could be read. Out of range: the invalid-cluster line and false.
  bool WriteFatEntry(uint64_t cluster, uint32_t value);
  uint64_t NextCluster(uint64_t cluster, bool no_fat_chain, uint64_t remaining);

  // Starts the reads of up to `bytes` of a chain's clusters (0: a few
  // clusters' worth), so that a cold device serves them together rather than
  // one after another. The FAT is read through the device, never through
  // the model's cache, and the chain is left at the first thing out of the
  // ordinary: nothing the model shows changes.
  void Prefetch(uint64_t first_cluster, bool no_fat_chain, uint64_t bytes);

  bool IsClusterAllocated(uint64_t cluster) const;
  // Sets or clears `cluster` in `bitmap` (one of this model's bitmaps);
  // throws "Invalid cluster {:x}" when it is out of range.
  void SetClusterBit(ClusterBitmap& bitmap, uint64_t cluster, bool value);
  void MarkChecked(uint64_t cluster, bool value) { SetClusterBit(m_check_bitmap, cluster, value); }
  void CopyBitmapToCheck();

  bool LoadAllocationBitmap(uint64_t first_cluster, uint64_t length);
  bool UpdateAllocationBitmap();
  void FreeChain(uint64_t first_cluster, bool no_fat_chain, uint64_t clusters);
  bool CheckChain(uint64_t first_cluster, bool no_fat_chain, uint64_t data_length);

  bool LoadUpcaseTable(uint64_t first_cluster, uint64_t data_length, uint32_t table_checksum);
  bool HasUpcaseTable() const { return !m_upcase_table.empty(); }
  uint16_t UpcaseEntry(uint16_t unit) const { return HasUpcaseTable() ? m_upcase_table[unit] : unit; }

  uint64_t UpcaseTableCluster() const { return m_upcase_table_cluster; }
  void SetUpcaseTableCluster(uint64_t cluster) { m_upcase_table_cluster = cluster; }
  uint32_t FreedChains() const { return m_freed_chains; }
  // Grows with every change to the model or write to the device: equal
  // counts mean nothing has changed in between.
  uint64_t Changes() const;
  // The FAT sector cache, which decides where a chain goes next when the
  // entry's own sector cannot be read.
  std::string FatCacheKey() const;
  void NoteChange() { ++m_changes; }

 private:
  // One sector of a chained structure, met during WalkSectors: its 512-byte
  // device sector, where its bytes start within the structure, and how many
  // of them belong to the structure.
  struct SectorChunk {
    uint64_t sector;
    uint64_t offset;
    uint64_t bytes;
    bool last;
    uint64_t rest;  // sectors of the cluster after this one that the walk will reach
  };
  using ClusterVisitor = std::function<void(uint64_t cluster)>;
  // What a visitor makes of a sector: go on, or pass over the rest of its
  // cluster, which the visitor has taken into account at once.
  enum class Next { kGoOn, kSkipCluster };
  using SectorVisitor = std::function<Next(const SectorChunk& chunk)>;
  // Asked when the walk comes back to a cluster it has walked (the chain
  // loops), with the walk's offset and the bytes one lap of the loop
  // covers. A loop never fails, so the walk could only go round until its
  // length is used up: kSettled when nothing observable can come of that
  // (the walk ends as it would then).
  enum class Lap { kGoOn, kSettled };
  using SettledCheck = std::function<Lap(uint64_t offset, uint64_t lap_bytes)>;
  // Asked at the same point: how many whole laps may be left out, the
  // visitors having taken them into account.
  using LapSkip = std::function<uint64_t(uint64_t offset, uint64_t lap_bytes, uint64_t left)>;

  // Walks the sectors of a structure of `length` bytes that starts at
  // `first_cluster`, always through the FAT, until the length is used up.
  // Fails (false) with the invalid-cluster line when the chain leaves the
  // range or ends early. Once round a loop, `settled` is asked again at
  // every sector.
  bool WalkSectors(uint64_t first_cluster, uint64_t length, const ClusterVisitor& on_cluster,
                   const SectorVisitor& on_sector, const SettledCheck& settled, const LapSkip& skip_laps = {});
  void ClearAllocated(uint64_t cluster);
  // Checks a run of consecutive clusters as the chain walk would, one
  // cluster after another, but marks it as a range: true when all
  // `expected` clusters are allocated and unmet.
  bool CheckRun(uint64_t first_cluster, uint64_t expected);
  // The first cluster from `first` to `last` that is not allocated or
  // already met; last + 1 when there is none.
  uint64_t FirstUnusable(uint64_t first, uint64_t last) const;
  uint64_t FatSectorOf(uint64_t cluster) const;
  // The entry of `cluster` in the one-sector cache, its sector read first.
  uint8_t* CachedFatEntry(uint64_t cluster);

  uint64_t m_upcase_table_cluster = 0;
  ClusterBitmap m_allocation_bitmap;
  bool m_allocation_bitmap_loaded = false;
  ClusterBitmap m_check_bitmap;
  uint64_t m_bitmap_bytes = 0;
  std::vector<uint16_t> m_upcase_table;
  DeviceHandle& m_device;
  BootSector& m_boot_sector;
  uint64_t m_max_cluster;
  uint64_t m_fat_entries_per_sector;
  uint64_t m_cached_fat_sector = 0;
  std::vector<uint8_t> m_fat_sector_cache;
  // Entries of a FAT sector bigger than the cache, past its 512 bytes: no
  // read fills them, and only a write of the same run puts a value there.
  std::unordered_map<uint64_t, std::array<uint8_t, 4>> m_fat_entries_past_cache;
  uint32_t m_freed_chains = 0;
  uint64_t m_changes = 0;
};

// Builds the model; initialisation errors propagate. Never returns null.
std::unique_ptr<Fat> CreateFat(DeviceHandle& device, BootSector& boot_sector);
