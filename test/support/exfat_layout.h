#pragma once

// An independent reader and writer of exFAT images for tests: it finds the
// structures a test wants to damage or inspect (FAT entries, bitmap bits,
// directory entry sets, the up-case table, the boot region) and crafts new
// ones with their own checksums. It shares no code with the tool, so a test
// that uses it checks the tool against a second reading of the format.

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

using RawEntry = std::array<uint8_t, 32>;

// Little-endian helpers over byte buffers (any alignment).
uint64_t GetLe(const uint8_t* p, int bytes);
void PutLe(uint8_t* p, uint64_t value, int bytes);

// Directory entry type bytes.
constexpr uint8_t kEntryBitmap = 0x81;
constexpr uint8_t kEntryUpcase = 0x82;
constexpr uint8_t kEntryLabel = 0x83;
constexpr uint8_t kEntryFile = 0x85;
constexpr uint8_t kEntryStream = 0xC0;
constexpr uint8_t kEntryName = 0xC1;
constexpr uint32_t kEndOfChain = 0xFFFFFFFF;
constexpr uint16_t kAttrDirectory = 0x10;
constexpr uint16_t kAttrArchive = 0x20;

// Boot sector fields, as stored.
struct ExfatGeometry {
  uint64_t volume_length = 0;
  uint64_t fat_offset = 0;           // sectors
  uint64_t fat_length = 0;           // sectors
  uint64_t cluster_heap_offset = 0;  // sectors
  uint64_t cluster_count = 0;
  uint64_t root_cluster = 0;
  uint32_t bytes_per_sector_shift = 0;
  uint32_t sectors_per_cluster_shift = 0;
  uint32_t number_of_fats = 0;
  uint32_t BytesPerSector() const { return 1u << bytes_per_sector_shift; }
  uint32_t SectorsPerCluster() const { return 1u << sectors_per_cluster_shift; }
  uint64_t ClusterBytes() const { return uint64_t{BytesPerSector()} << sectors_per_cluster_shift; }
};

// Reads the geometry out of a 512-byte (or longer) main boot sector.
ExfatGeometry ParseGeometry(const std::vector<uint8_t>& boot_sector);

// The boot region checksum: exFAT's 32-bit rotate-right sum over sectors 0
// to 10 of a region, skipping VolumeFlags (106, 107) and PercentInUse (112).
// `region` holds at least 11 sectors.
uint32_t BootRegionChecksum(const uint8_t* region, uint32_t bytes_per_sector);

// The 16-bit entry-set checksum over a whole set (bytes 2 and 3 of the first
// entry skipped).
uint16_t EntrySetChecksum(const std::vector<RawEntry>& set);

// The name hash over an already up-cased UTF-16 name.
uint16_t NameHashOfUpcased(const std::u16string& upcased);

// Up-cases ASCII a-z only (what mkfs.exfat's table does for those letters).
std::u16string UpcaseAscii(const std::u16string& name);

// Builds a File + Stream + Name entry set with correct checksum and hash.
// The hash is computed over `upcase(name)`; the default up-cases ASCII.
struct EntrySetSpec {
  std::u16string name;
  uint16_t attributes = kAttrArchive;
  uint32_t first_cluster = 0;
  uint64_t data_length = 0;
  uint64_t valid_data_length = 0;
  bool no_fat_chain = false;
  bool allocation_possible = true;
};
std::vector<RawEntry> BuildEntrySet(const EntrySetSpec& spec,
                                    const std::function<std::u16string(const std::u16string&)>&
                                        upcase = UpcaseAscii);

// Restores the set checksum of a set after a field of it was edited.
void FixSetChecksum(std::vector<RawEntry>& set);

// One entry set as found in a directory.
struct FoundSet {
  std::u16string name;
  uint16_t attributes = 0;
  uint16_t stored_checksum = 0;
  uint16_t stored_hash = 0;
  uint8_t secondary_flags = 0;
  uint32_t first_cluster = 0;
  uint64_t data_length = 0;
  uint64_t valid_data_length = 0;
  std::vector<uint64_t> entry_offsets;  // byte offsets in the image, File entry first
  std::vector<RawEntry> entries;
  bool NoFatChain() const { return (secondary_flags & 2) != 0; }
  bool IsDirectory() const { return (attributes & kAttrDirectory) != 0; }
};

// A directory slot: where a 32-byte entry lies and what it holds.
struct DirectorySlot {
  uint64_t offset = 0;
  RawEntry bytes{};
};

struct StructureEntry {
  uint32_t first_cluster = 0;
  uint64_t data_length = 0;
  uint32_t table_checksum = 0;  // up-case table only
  uint64_t entry_offset = 0;
};

// An exFAT image file opened for reading and writing. Every access goes to
// the file at once (no caching), so a test can mix it with runs of the tool.
class ExfatLayout {
 public:
  explicit ExfatLayout(const std::string& image_path);
  ~ExfatLayout();
  ExfatLayout(const ExfatLayout&) = delete;
  ExfatLayout& operator=(const ExfatLayout&) = delete;

  const ExfatGeometry& Geometry() const { return m_geometry; }
  const std::string& Path() const { return m_path; }

  // Raw bytes.
  std::vector<uint8_t> Read(uint64_t offset, size_t length) const;
  void Write(uint64_t offset, const std::vector<uint8_t>& bytes);
  void Write(uint64_t offset, const uint8_t* bytes, size_t length);
  std::vector<uint8_t> ReadSector(uint64_t sector) const;
  uint64_t SectorOffset(uint64_t sector) const { return sector * m_geometry.BytesPerSector(); }

  // Clusters and the (first) FAT.
  uint64_t ClusterOffset(uint64_t cluster) const;
  uint64_t ClusterSector(uint64_t cluster) const;
  uint64_t FatEntryOffset(uint64_t cluster) const;
  uint32_t ReadFat(uint64_t cluster) const;
  void WriteFat(uint64_t cluster, uint32_t value);
  // Follows a FAT chain from `first` until end of chain, an entry outside
  // 2..ClusterCount+1, or `limit` clusters (loops end there).
  std::vector<uint64_t> FatChain(uint64_t first, size_t limit = 0) const;
  // The clusters of a structure: `count` contiguous ones, or its FAT chain.
  std::vector<uint64_t> Clusters(uint64_t first, uint64_t data_length, bool no_fat_chain) const;

  // Structures named in the root directory.
  StructureEntry BitmapEntry() const;
  StructureEntry UpcaseEntry() const;

  // The allocation bitmap (located through the root directory).
  bool BitmapBit(uint64_t cluster) const;
  void SetBitmapBit(uint64_t cluster, bool value);
  uint64_t BitmapByteOffset(uint64_t cluster) const;
  std::vector<uint8_t> BitmapBytes() const;
  // Free clusters in ascending order (by the on-disk bitmap).
  std::vector<uint64_t> FreeClusters(size_t how_many) const;

  // Marks clusters used in the bitmap and, unless `no_fat_chain`, links them
  // into a FAT chain in the given order ending in end-of-chain.
  void AllocateChain(const std::vector<uint64_t>& clusters, bool no_fat_chain);
  // Finds `count` free clusters (contiguous when `contiguous`), allocates them.
  std::vector<uint64_t> Allocate(size_t count, bool contiguous, bool no_fat_chain);
  // `count` free clusters, each allocated as a one-cluster chain of its own.
  std::vector<uint64_t> AllocateEach(size_t count);

  // The expanded up-case table (65,536 entries), read from the image.
  std::vector<uint16_t> UpcaseTable() const;
  // The name up-cased through the image's own table.
  std::u16string UpcaseWithTable(const std::u16string& name) const;

  // Directory contents. The root follows its FAT chain; a subdirectory uses
  // its entry set's NoFatChain flag and DataLength.
  std::vector<DirectorySlot> DirectorySlots(uint64_t first_cluster, bool no_fat_chain = false,
                                            uint64_t data_length = 0) const;
  std::vector<DirectorySlot> RootSlots() const;
  // Byte offset of directory slot `index` (0-based, crossing sectors and
  // clusters along the directory's chain).
  uint64_t SlotOffset(uint64_t first_cluster, uint64_t index, bool no_fat_chain = false,
                      uint64_t data_length = 0) const;
  // Index of the first slot with type byte 0 (end of directory).
  uint64_t FirstFreeSlot(uint64_t first_cluster, bool no_fat_chain = false,
                         uint64_t data_length = 0) const;
  // In-use File entry sets of a directory.
  std::vector<FoundSet> Files(uint64_t first_cluster, bool no_fat_chain = false,
                              uint64_t data_length = 0) const;
  std::vector<FoundSet> RootFiles() const;
  // Finds an in-use set by a "/"-separated path of UTF-8 names below the root.
  // Throws when it does not exist.
  FoundSet Find(const std::string& path) const;
  bool Exists(const std::string& path) const;
  // Every in-use set in the tree, keyed by its path.
  std::vector<std::pair<std::string, FoundSet>> Tree() const;

  // Writes a set at consecutive slots from `index` of a directory.
  void WriteEntrySet(uint64_t dir_first_cluster, uint64_t index, const std::vector<RawEntry>& set,
                     bool no_fat_chain = false, uint64_t dir_data_length = 0);
  void WriteEntry(uint64_t offset, const RawEntry& entry);

 private:
  std::string m_path;
  int m_fd = -1;
  ExfatGeometry m_geometry;
};

// UTF-8 <-> UTF-16 for names in tests.
std::u16string ToUtf16(const std::string& utf8);
std::string ToUtf8(const std::u16string& utf16);

}  // namespace testsupport
