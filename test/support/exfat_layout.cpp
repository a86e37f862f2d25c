#include "exfat_layout.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace testsupport {
namespace {

// Boot sector offsets.
constexpr size_t kVolumeLength = 72;
constexpr size_t kFatOffset = 80;
constexpr size_t kFatLength = 84;
constexpr size_t kClusterHeapOffset = 88;
constexpr size_t kClusterCount = 92;
constexpr size_t kRootCluster = 96;
constexpr size_t kBytesPerSectorShift = 108;
constexpr size_t kSectorsPerClusterShift = 109;
constexpr size_t kNumberOfFats = 110;

// Directory entry offsets.
constexpr size_t kSecondaryCount = 1;
constexpr size_t kSetChecksum = 2;
constexpr size_t kFileAttributes = 4;
constexpr size_t kStreamFlags = 1;
constexpr size_t kNameLength = 3;
constexpr size_t kNameHash = 4;
constexpr size_t kValidDataLength = 8;
constexpr size_t kFirstCluster = 20;
constexpr size_t kDataLength = 24;
constexpr size_t kTableChecksum = 4;
constexpr size_t kNameChars = 2;
constexpr size_t kCharsPerNameEntry = 15;

uint16_t ChecksumStep(uint16_t sum, uint8_t byte) {
  return static_cast<uint16_t>(((sum & 1) ? 0x8000 : 0) + (sum >> 1) + byte);
}

std::vector<std::string> SplitPath(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) parts.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

}  // namespace

uint64_t GetLe(const uint8_t* p, int bytes) {
  uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i) value = (value << 8) | p[i];
  return value;
}

void PutLe(uint8_t* p, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) p[i] = static_cast<uint8_t>(value >> (8 * i));
}

ExfatGeometry ParseGeometry(const std::vector<uint8_t>& boot) {
  if (boot.size() < 512) throw std::runtime_error("boot sector shorter than 512 bytes");
  ExfatGeometry g;
  g.volume_length = GetLe(&boot[kVolumeLength], 8);
  g.fat_offset = GetLe(&boot[kFatOffset], 4);
  g.fat_length = GetLe(&boot[kFatLength], 4);
  g.cluster_heap_offset = GetLe(&boot[kClusterHeapOffset], 4);
  g.cluster_count = GetLe(&boot[kClusterCount], 4);
  g.root_cluster = GetLe(&boot[kRootCluster], 4);
  g.bytes_per_sector_shift = boot[kBytesPerSectorShift];
  g.sectors_per_cluster_shift = boot[kSectorsPerClusterShift];
  g.number_of_fats = boot[kNumberOfFats];
  return g;
}

uint32_t BootRegionChecksum(const uint8_t* region, uint32_t bytes_per_sector) {
  uint32_t sum = 0;
  const size_t length = size_t{bytes_per_sector} * 11;
  for (size_t i = 0; i < length; ++i) {
    if (i == 106 || i == 107 || i == 112) continue;
    sum = ((sum & 1) ? 0x80000000u : 0) + (sum >> 1) + region[i];
  }
  return sum;
}

uint16_t EntrySetChecksum(const std::vector<RawEntry>& set) {
  uint16_t sum = 0;
  for (size_t e = 0; e < set.size(); ++e)
    for (size_t i = 0; i < 32; ++i) {
      if (e == 0 && (i == 2 || i == 3)) continue;
      sum = ChecksumStep(sum, set[e][i]);
    }
  return sum;
}

uint16_t NameHashOfUpcased(const std::u16string& upcased) {
  uint16_t hash = 0;
  for (char16_t c : upcased) {
    hash = ChecksumStep(hash, static_cast<uint8_t>(c & 0xFF));
    hash = ChecksumStep(hash, static_cast<uint8_t>(c >> 8));
  }
  return hash;
}

std::u16string UpcaseAscii(const std::u16string& name) {
  std::u16string out = name;
  for (char16_t& c : out)
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
  return out;
}

std::vector<RawEntry> BuildEntrySet(
    const EntrySetSpec& spec, const std::function<std::u16string(const std::u16string&)>& upcase) {
  const size_t name_entries = (spec.name.size() + kCharsPerNameEntry - 1) / kCharsPerNameEntry;
  std::vector<RawEntry> set(2 + name_entries);
  for (RawEntry& e : set) e.fill(0);
  RawEntry& file = set[0];
  file[0] = kEntryFile;
  file[kSecondaryCount] = static_cast<uint8_t>(1 + name_entries);
  PutLe(&file[kFileAttributes], spec.attributes, 2);
  // Fixed, plausible timestamps (2024-01-01 00:00:00).
  for (size_t at : {8, 12, 16}) PutLe(&file[at], 0x58210000, 4);

  RawEntry& stream = set[1];
  stream[0] = kEntryStream;
  stream[kStreamFlags] =
      static_cast<uint8_t>((spec.allocation_possible ? 1 : 0) | (spec.no_fat_chain ? 2 : 0));
  stream[kNameLength] = static_cast<uint8_t>(spec.name.size());
  PutLe(&stream[kNameHash], NameHashOfUpcased(upcase(spec.name)), 2);
  PutLe(&stream[kValidDataLength], spec.valid_data_length, 8);
  PutLe(&stream[kFirstCluster], spec.first_cluster, 4);
  PutLe(&stream[kDataLength], spec.data_length, 8);

  for (size_t n = 0; n < name_entries; ++n) {
    RawEntry& entry = set[2 + n];
    entry[0] = kEntryName;
    for (size_t k = 0; k < kCharsPerNameEntry; ++k) {
      size_t index = n * kCharsPerNameEntry + k;
      if (index >= spec.name.size()) break;
      PutLe(&entry[kNameChars + 2 * k], spec.name[index], 2);
    }
  }
  FixSetChecksum(set);
  return set;
}

void FixSetChecksum(std::vector<RawEntry>& set) {
  PutLe(&set[0][kSetChecksum], EntrySetChecksum(set), 2);
}

// ---------------------------------------------------------------------------

ExfatLayout::ExfatLayout(const std::string& image_path) : m_path(image_path) {
  m_fd = open(image_path.c_str(), O_RDWR | O_CLOEXEC);
  if (m_fd < 0)
    throw std::runtime_error("cannot open " + image_path + ": " + std::strerror(errno));
  m_geometry = ParseGeometry(Read(0, 512));
}

ExfatLayout::~ExfatLayout() {
  if (m_fd >= 0) close(m_fd);
}

std::vector<uint8_t> ExfatLayout::Read(uint64_t offset, size_t length) const {
  std::vector<uint8_t> bytes(length);
  size_t done = 0;
  while (done < length) {
    ssize_t n = pread(m_fd, bytes.data() + done, length - done, static_cast<off_t>(offset + done));
    if (n <= 0)
      throw std::runtime_error("short read at " + std::to_string(offset + done) + " of " + m_path);
    done += static_cast<size_t>(n);
  }
  return bytes;
}

void ExfatLayout::Write(uint64_t offset, const std::vector<uint8_t>& bytes) {
  Write(offset, bytes.data(), bytes.size());
}

void ExfatLayout::Write(uint64_t offset, const uint8_t* bytes, size_t length) {
  if (pwrite(m_fd, bytes, length, static_cast<off_t>(offset)) != static_cast<ssize_t>(length))
    throw std::runtime_error("short write at " + std::to_string(offset) + " of " + m_path);
}

std::vector<uint8_t> ExfatLayout::ReadSector(uint64_t sector) const {
  return Read(SectorOffset(sector), m_geometry.BytesPerSector());
}

uint64_t ExfatLayout::ClusterSector(uint64_t cluster) const {
  return m_geometry.cluster_heap_offset + ((cluster - 2) << m_geometry.sectors_per_cluster_shift);
}

uint64_t ExfatLayout::ClusterOffset(uint64_t cluster) const {
  return SectorOffset(ClusterSector(cluster));
}

uint64_t ExfatLayout::FatEntryOffset(uint64_t cluster) const {
  return SectorOffset(m_geometry.fat_offset) + 4 * cluster;
}

uint32_t ExfatLayout::ReadFat(uint64_t cluster) const {
  std::vector<uint8_t> b = Read(FatEntryOffset(cluster), 4);
  return static_cast<uint32_t>(GetLe(b.data(), 4));
}

void ExfatLayout::WriteFat(uint64_t cluster, uint32_t value) {
  uint8_t b[4];
  PutLe(b, value, 4);
  Write(FatEntryOffset(cluster), b, 4);
}

std::vector<uint64_t> ExfatLayout::FatChain(uint64_t first, size_t limit) const {
  if (limit == 0) limit = m_geometry.cluster_count;
  std::vector<uint64_t> chain;
  uint64_t c = first;
  while (c >= 2 && c <= m_geometry.cluster_count + 1 && chain.size() < limit) {
    chain.push_back(c);
    c = ReadFat(c);
  }
  return chain;
}

std::vector<uint64_t> ExfatLayout::Clusters(uint64_t first, uint64_t data_length,
                                            bool no_fat_chain) const {
  if (!no_fat_chain) return FatChain(first);
  std::vector<uint64_t> clusters;
  const uint64_t count = (data_length + m_geometry.ClusterBytes() - 1) / m_geometry.ClusterBytes();
  for (uint64_t i = 0; i < count; ++i) clusters.push_back(first + i);
  return clusters;
}

StructureEntry ExfatLayout::BitmapEntry() const {
  for (const DirectorySlot& slot : RootSlots())
    if (slot.bytes[0] == kEntryBitmap)
      return {static_cast<uint32_t>(GetLe(&slot.bytes[kFirstCluster], 4)),
              GetLe(&slot.bytes[kDataLength], 8), 0, slot.offset};
  throw std::runtime_error("no allocation bitmap entry in the root directory");
}

StructureEntry ExfatLayout::UpcaseEntry() const {
  for (const DirectorySlot& slot : RootSlots())
    if (slot.bytes[0] == kEntryUpcase)
      return {static_cast<uint32_t>(GetLe(&slot.bytes[kFirstCluster], 4)),
              GetLe(&slot.bytes[kDataLength], 8),
              static_cast<uint32_t>(GetLe(&slot.bytes[kTableChecksum], 4)), slot.offset};
  throw std::runtime_error("no up-case table entry in the root directory");
}

uint64_t ExfatLayout::BitmapByteOffset(uint64_t cluster) const {
  const StructureEntry bitmap = BitmapEntry();
  const uint64_t byte = (cluster - 2) / 8;
  const uint64_t cluster_bytes = m_geometry.ClusterBytes();
  std::vector<uint64_t> chain = FatChain(bitmap.first_cluster);
  const uint64_t index = byte / cluster_bytes;
  if (index >= chain.size()) throw std::runtime_error("cluster beyond the allocation bitmap");
  return ClusterOffset(chain[index]) + byte % cluster_bytes;
}

bool ExfatLayout::BitmapBit(uint64_t cluster) const {
  return (Read(BitmapByteOffset(cluster), 1)[0] >> ((cluster - 2) % 8)) & 1;
}

void ExfatLayout::SetBitmapBit(uint64_t cluster, bool value) {
  const uint64_t offset = BitmapByteOffset(cluster);
  uint8_t byte = Read(offset, 1)[0];
  const uint8_t mask = static_cast<uint8_t>(1u << ((cluster - 2) % 8));
  byte = value ? (byte | mask) : (byte & ~mask);
  Write(offset, &byte, 1);
}

std::vector<uint8_t> ExfatLayout::BitmapBytes() const {
  const StructureEntry bitmap = BitmapEntry();
  std::vector<uint8_t> bytes;
  for (uint64_t c : FatChain(bitmap.first_cluster)) {
    const uint64_t take = std::min<uint64_t>(m_geometry.ClusterBytes(), bitmap.data_length - bytes.size());
    std::vector<uint8_t> part = Read(ClusterOffset(c), take);
    bytes.insert(bytes.end(), part.begin(), part.end());
    if (bytes.size() >= bitmap.data_length) break;
  }
  return bytes;
}

std::vector<uint64_t> ExfatLayout::FreeClusters(size_t how_many) const {
  std::vector<uint8_t> bitmap = BitmapBytes();
  std::vector<uint64_t> free;
  for (uint64_t c = 2; c < m_geometry.cluster_count + 2 && free.size() < how_many; ++c)
    if (!((bitmap[(c - 2) / 8] >> ((c - 2) % 8)) & 1)) free.push_back(c);
  return free;
}

void ExfatLayout::AllocateChain(const std::vector<uint64_t>& clusters, bool no_fat_chain) {
  for (size_t i = 0; i < clusters.size(); ++i) {
    SetBitmapBit(clusters[i], true);
    if (!no_fat_chain)
      WriteFat(clusters[i],
               i + 1 < clusters.size() ? static_cast<uint32_t>(clusters[i + 1]) : kEndOfChain);
  }
}

std::vector<uint64_t> ExfatLayout::Allocate(size_t count, bool contiguous, bool no_fat_chain) {
  std::vector<uint64_t> free = FreeClusters(m_geometry.cluster_count);
  std::vector<uint64_t> chosen;
  if (contiguous) {
    for (size_t i = 0; i < free.size() && chosen.size() < count; ++i) {
      if (!chosen.empty() && free[i] != chosen.back() + 1) chosen.clear();
      chosen.push_back(free[i]);
    }
  } else {
    chosen.assign(free.begin(), free.begin() + std::min(count, free.size()));
  }
  if (chosen.size() < count) throw std::runtime_error("not enough free clusters");
  AllocateChain(chosen, no_fat_chain);
  return chosen;
}

std::vector<uint64_t> ExfatLayout::AllocateEach(size_t count) {
  std::vector<uint64_t> free = FreeClusters(count);
  if (free.size() < count) throw std::runtime_error("not enough free clusters");
  for (uint64_t c : free) AllocateChain({c}, false);
  return free;
}

std::vector<uint16_t> ExfatLayout::UpcaseTable() const {
  const StructureEntry upcase = UpcaseEntry();
  std::vector<uint8_t> data;
  for (uint64_t c : Clusters(upcase.first_cluster, upcase.data_length, false)) {
    const uint64_t take = std::min<uint64_t>(m_geometry.ClusterBytes(), upcase.data_length - data.size());
    std::vector<uint8_t> part = Read(ClusterOffset(c), take);
    data.insert(data.end(), part.begin(), part.end());
    if (data.size() >= upcase.data_length) break;
  }
  std::vector<uint16_t> table(65536);
  for (size_t i = 0; i < table.size(); ++i) table[i] = static_cast<uint16_t>(i);
  // Compressed form: 0xFFFF followed by a count skips that many identity
  // mappings.
  size_t index = 0;
  for (size_t i = 0; i + 1 < data.size() && index < table.size(); i += 2) {
    uint16_t v = static_cast<uint16_t>(GetLe(&data[i], 2));
    if (v == 0xFFFF && i + 3 < data.size()) {
      index += GetLe(&data[i + 2], 2);
      i += 2;
    } else {
      table[index++] = v;
    }
  }
  return table;
}

std::u16string ExfatLayout::UpcaseWithTable(const std::u16string& name) const {
  std::vector<uint16_t> table = UpcaseTable();
  std::u16string out = name;
  for (char16_t& c : out) c = static_cast<char16_t>(table[c]);
  return out;
}

std::vector<DirectorySlot> ExfatLayout::DirectorySlots(uint64_t first_cluster, bool no_fat_chain,
                                                       uint64_t data_length) const {
  std::vector<DirectorySlot> slots;
  const uint64_t cluster_bytes = m_geometry.ClusterBytes();
  for (uint64_t c : Clusters(first_cluster, data_length, no_fat_chain)) {
    if (c < 2 || c > m_geometry.cluster_count + 1) break;
    std::vector<uint8_t> bytes = Read(ClusterOffset(c), cluster_bytes);
    for (uint64_t at = 0; at < cluster_bytes; at += 32) {
      DirectorySlot slot;
      slot.offset = ClusterOffset(c) + at;
      std::copy(bytes.begin() + at, bytes.begin() + at + 32, slot.bytes.begin());
      slots.push_back(slot);
    }
  }
  return slots;
}

std::vector<DirectorySlot> ExfatLayout::RootSlots() const {
  return DirectorySlots(m_geometry.root_cluster);
}

uint64_t ExfatLayout::SlotOffset(uint64_t first_cluster, uint64_t index, bool no_fat_chain,
                                 uint64_t data_length) const {
  const uint64_t per_cluster = m_geometry.ClusterBytes() / 32;
  std::vector<uint64_t> clusters = Clusters(first_cluster, data_length, no_fat_chain);
  if (index / per_cluster >= clusters.size())
    throw std::runtime_error("directory slot beyond the directory's clusters");
  return ClusterOffset(clusters[index / per_cluster]) + 32 * (index % per_cluster);
}

uint64_t ExfatLayout::FirstFreeSlot(uint64_t first_cluster, bool no_fat_chain,
                                    uint64_t data_length) const {
  std::vector<DirectorySlot> slots = DirectorySlots(first_cluster, no_fat_chain, data_length);
  for (size_t i = 0; i < slots.size(); ++i)
    if (slots[i].bytes[0] == 0) return i;
  throw std::runtime_error("directory has no free slot");
}

std::vector<FoundSet> ExfatLayout::Files(uint64_t first_cluster, bool no_fat_chain,
                                         uint64_t data_length) const {
  std::vector<DirectorySlot> slots = DirectorySlots(first_cluster, no_fat_chain, data_length);
  std::vector<FoundSet> sets;
  for (size_t i = 0; i < slots.size(); ++i) {
    const RawEntry& e = slots[i].bytes;
    if (e[0] == 0) break;
    if (e[0] != kEntryFile) continue;
    const size_t secondaries = e[kSecondaryCount];
    if (secondaries < 2 || i + secondaries >= slots.size()) continue;
    FoundSet set;
    set.attributes = static_cast<uint16_t>(GetLe(&e[kFileAttributes], 2));
    set.stored_checksum = static_cast<uint16_t>(GetLe(&e[kSetChecksum], 2));
    for (size_t k = 0; k <= secondaries; ++k) {
      set.entries.push_back(slots[i + k].bytes);
      set.entry_offsets.push_back(slots[i + k].offset);
    }
    const RawEntry& s = set.entries[1];
    if (s[0] != kEntryStream) continue;
    set.secondary_flags = s[kStreamFlags];
    set.stored_hash = static_cast<uint16_t>(GetLe(&s[kNameHash], 2));
    set.valid_data_length = GetLe(&s[kValidDataLength], 8);
    set.first_cluster = static_cast<uint32_t>(GetLe(&s[kFirstCluster], 4));
    set.data_length = GetLe(&s[kDataLength], 8);
    const size_t name_length = s[kNameLength];
    for (size_t k = 2; k < set.entries.size() && set.name.size() < name_length; ++k) {
      if (set.entries[k][0] != kEntryName) break;
      for (size_t ch = 0; ch < kCharsPerNameEntry && set.name.size() < name_length; ++ch)
        set.name.push_back(static_cast<char16_t>(GetLe(&set.entries[k][kNameChars + 2 * ch], 2)));
    }
    sets.push_back(std::move(set));
    i += secondaries;
  }
  return sets;
}

std::vector<FoundSet> ExfatLayout::RootFiles() const { return Files(m_geometry.root_cluster); }

FoundSet ExfatLayout::Find(const std::string& path) const {
  std::vector<std::string> parts = SplitPath(path);
  if (parts.empty()) throw std::runtime_error("empty path");
  std::vector<FoundSet> here = RootFiles();
  for (size_t p = 0; p < parts.size(); ++p) {
    const std::u16string wanted = ToUtf16(parts[p]);
    const FoundSet* match = nullptr;
    for (const FoundSet& s : here)
      if (s.name == wanted) match = &s;
    if (match == nullptr) throw std::runtime_error("no such entry: " + path);
    if (p + 1 == parts.size()) return *match;
    FoundSet dir = *match;
    here = Files(dir.first_cluster, dir.NoFatChain(), dir.data_length);
  }
  throw std::logic_error("unreachable");
}

bool ExfatLayout::Exists(const std::string& path) const {
  try {
    Find(path);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

std::vector<std::pair<std::string, FoundSet>> ExfatLayout::Tree() const {
  std::vector<std::pair<std::string, FoundSet>> out;
  std::function<void(const std::string&, const std::vector<FoundSet>&, int)> walk =
      [&](const std::string& prefix, const std::vector<FoundSet>& sets, int depth) {
        for (const FoundSet& s : sets) {
          std::string path = prefix + ToUtf8(s.name);
          out.emplace_back(path, s);
          if (s.IsDirectory() && s.first_cluster >= 2 && depth < 64)
            walk(path + "/", Files(s.first_cluster, s.NoFatChain(), s.data_length), depth + 1);
        }
      };
  walk("", RootFiles(), 0);
  return out;
}

void ExfatLayout::WriteEntrySet(uint64_t dir_first_cluster, uint64_t index,
                                const std::vector<RawEntry>& set, bool no_fat_chain,
                                uint64_t dir_data_length) {
  for (size_t k = 0; k < set.size(); ++k)
    WriteEntry(SlotOffset(dir_first_cluster, index + k, no_fat_chain, dir_data_length), set[k]);
}

void ExfatLayout::WriteEntry(uint64_t offset, const RawEntry& entry) {
  Write(offset, entry.data(), entry.size());
}

// ---------------------------------------------------------------------------

std::u16string ToUtf16(const std::string& utf8) {
  std::u16string out;
  for (size_t i = 0; i < utf8.size();) {
    const uint8_t b = static_cast<uint8_t>(utf8[i]);
    uint32_t cp;
    size_t len;
    if (b < 0x80) {
      cp = b;
      len = 1;
    } else if ((b & 0xE0) == 0xC0) {
      cp = b & 0x1F;
      len = 2;
    } else if ((b & 0xF0) == 0xE0) {
      cp = b & 0x0F;
      len = 3;
    } else {
      cp = b & 0x07;
      len = 4;
    }
    if (i + len > utf8.size()) throw std::runtime_error("truncated UTF-8");
    for (size_t k = 1; k < len; ++k) cp = (cp << 6) | (static_cast<uint8_t>(utf8[i + k]) & 0x3F);
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
    i += len;
  }
  return out;
}

std::string ToUtf8(const std::u16string& utf16) {
  std::string out;
  for (size_t i = 0; i < utf16.size(); ++i) {
    uint32_t cp = utf16[i];
    if (cp >= 0xD800 && cp < 0xDC00 && i + 1 < utf16.size()) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (utf16[i + 1] - 0xDC00);
      ++i;
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

}  // namespace testsupport
