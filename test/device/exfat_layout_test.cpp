// The test-side exFAT reader/writer checked against independent tools:
// dump.exfat's view of the geometry, mkfs.exfat's own checksums, fsck.exfat's
// acceptance of crafted entry sets, and what exfat-fuse writes and reads.

#include "exfat_layout.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "exfat_image.h"
#include "mounted_volume.h"
#include "process.h"
#include "scratch.h"

using namespace testsupport;

namespace {

uint64_t DumpField(const std::string& dump, const std::string& label, int base = 10) {
  const size_t at = dump.find(label + ":");
  if (at == std::string::npos) throw std::runtime_error("dump.exfat lacks " + label);
  return std::stoull(dump.substr(at + label.size() + 1), nullptr, base);
}

// The up-case table checksum is the boot region's rotate sum over every byte.
uint32_t RotateSum(const std::vector<uint8_t>& bytes) {
  uint32_t sum = 0;
  for (uint8_t b : bytes) sum = ((sum & 1) ? 0x80000000u : 0) + (sum >> 1) + b;
  return sum;
}

}  // namespace

TEST(ExfatLayout, GeometryAgreesWithDumpExfat) {
  ScratchDir dir;
  for (uint32_t cluster : {512u, 4096u, 32768u}) {
    const std::string image = dir / ("g" + std::to_string(cluster) + ".img");
    MakeExfatImage(image, 48ull << 20, cluster);
    ProcessResult dump = RunProcess({"dump.exfat", image});
    ASSERT_EQ(dump.exit_status, 0) << dump.err;
    ExfatLayout layout(image);
    const ExfatGeometry& g = layout.Geometry();
    EXPECT_EQ(g.volume_length, DumpField(dump.out, "Volume Length(sectors)"));
    EXPECT_EQ(g.fat_offset, DumpField(dump.out, "FAT Offset(sector offset)"));
    EXPECT_EQ(g.fat_length, DumpField(dump.out, "FAT Length(sectors)"));
    EXPECT_EQ(g.cluster_heap_offset, DumpField(dump.out, "Cluster Heap Offset (sector offset)"));
    EXPECT_EQ(g.cluster_count, DumpField(dump.out, "Cluster Count"));
    EXPECT_EQ(g.root_cluster, DumpField(dump.out, "Root Cluster (cluster offset)"));
    EXPECT_EQ(g.ClusterBytes(), cluster);
    EXPECT_EQ(layout.BitmapEntry().first_cluster, DumpField(dump.out, "Bitmap start cluster"));
    EXPECT_EQ(layout.BitmapEntry().data_length, DumpField(dump.out, "Bitmap size"));
    // dump.exfat prints this one field in hexadecimal without a prefix.
    EXPECT_EQ(layout.UpcaseEntry().first_cluster,
              DumpField(dump.out, "Upcase table start cluster", 16));
    EXPECT_EQ(layout.UpcaseEntry().data_length, DumpField(dump.out, "Upcase table size"));
    // Free clusters as dump.exfat counts them from the same bitmap.
    EXPECT_EQ(layout.FreeClusters(g.cluster_count).size(), DumpField(dump.out, "Free Clusters"));
  }
}

TEST(ExfatLayout, ChecksumsMatchWhatMkfsWrote) {
  ScratchDir dir;
  const std::string image = dir / "c.img";
  MakeExfatImage(image, 32ull << 20);
  ExfatLayout layout(image);
  // Sector 11 repeats the boot region checksum; the backup region carries
  // the same checksum.
  std::vector<uint8_t> region = layout.Read(0, 24 * 512);
  const uint32_t sum = BootRegionChecksum(region.data(), 512);
  for (size_t at = 11 * 512; at < 12 * 512; at += 4) EXPECT_EQ(GetLe(&region[at], 4), sum);
  EXPECT_EQ(BootRegionChecksum(region.data() + 12 * 512, 512), sum);
  // A change in a skipped byte keeps it; any other byte changes it.
  region[106] ^= 1;
  region[112] ^= 0x40;
  EXPECT_EQ(BootRegionChecksum(region.data(), 512), sum);
  region[513] ^= 1;
  EXPECT_NE(BootRegionChecksum(region.data(), 512), sum);

  const StructureEntry upcase = layout.UpcaseEntry();
  std::vector<uint8_t> data;
  for (uint64_t c : layout.FatChain(upcase.first_cluster)) {
    std::vector<uint8_t> part = layout.Read(layout.ClusterOffset(c), layout.Geometry().ClusterBytes());
    data.insert(data.end(), part.begin(), part.end());
  }
  ASSERT_GE(data.size(), upcase.data_length);
  data.resize(upcase.data_length);
  EXPECT_EQ(RotateSum(data), upcase.table_checksum);
  std::vector<uint16_t> table = layout.UpcaseTable();
  EXPECT_EQ(table['a'], 'A');
  EXPECT_EQ(table['z'], 'Z');
  EXPECT_EQ(table['A'], 'A');
  EXPECT_EQ(table['0'], '0');
  EXPECT_EQ(table[0xE9], 0xC9);  // é -> É
}

TEST(ExfatLayout, CraftedFilesAreAcceptedByFsckAndReadableThroughFuse) {
  QVEXFAT_REQUIRE_MOUNTS();
  ScratchDir dir;
  const std::string image = dir / "craft.img";
  MakeExfatImage(image, 32ull << 20, 4096);
  {
    ExfatLayout layout(image);
    const uint64_t root = layout.Geometry().root_cluster;
    // A fragmented chained file of three clusters, a contiguous one of two,
    // and a name that needs two File Name entries.
    std::vector<uint64_t> free = layout.FreeClusters(8);
    std::vector<uint64_t> chain{free[4], free[1], free[6]};
    layout.AllocateChain(chain, false);
    EntrySetSpec chained{u"Chained file.bin", kAttrArchive, static_cast<uint32_t>(chain[0]),
                         3 * 4096 - 100, 3 * 4096 - 100, false};
    std::vector<uint64_t> run = layout.Allocate(2, true, true);
    EntrySetSpec contiguous{u"contiguous", kAttrArchive, static_cast<uint32_t>(run[0]), 8192, 8192,
                            true};
    uint64_t slot = layout.FirstFreeSlot(root);
    auto set1 = BuildEntrySet(chained);
    layout.WriteEntrySet(root, slot, set1);
    layout.WriteEntrySet(root, slot + set1.size(), BuildEntrySet(contiguous));
    // Fill the data so that reading it back proves the chain is followed.
    for (size_t i = 0; i < chain.size(); ++i)
      layout.Write(layout.ClusterOffset(chain[i]), std::vector<uint8_t>(4096, uint8_t('a' + i)));
  }
  FsckVerdict verdict = CheckImage(image);
  EXPECT_EQ(verdict.exit_status, 0) << verdict.output;

  MountedVolume volume(image, dir / "mnt", true);
  struct stat st {};
  ASSERT_EQ(stat((volume.MountPoint() + "/Chained file.bin").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 3 * 4096 - 100);
  std::ifstream in(volume.MountPoint() + "/Chained file.bin", std::ios::binary);
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_EQ(content.size(), 3u * 4096 - 100);
  EXPECT_EQ(content[0], 'a');
  EXPECT_EQ(content[4096], 'b');
  EXPECT_EQ(content[8192], 'c');
  ASSERT_EQ(stat((volume.MountPoint() + "/contiguous").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 8192);
}

TEST(ExfatLayout, ReadsBackWhatTheDriverWrote) {
  QVEXFAT_REQUIRE_MOUNTS();
  ScratchDir dir;
  const std::string image = dir / "fuse.img";
  MakeExfatImage(image, 32ull << 20, 4096);
  const std::string long_name(40, 'x');
  {
    MountedVolume volume(image, dir / "mnt");
    RunShell("mkdir -p '" + volume.MountPoint() + "/Dir/Sub' && printf hello > '" +
             volume.MountPoint() + "/Dir/Sub/résumé.txt' && : > '" + volume.MountPoint() +
             "/Dir/" + long_name + "'");
    volume.Unmount();
  }
  ExfatLayout layout(image);
  FoundSet file = layout.Find("Dir/Sub/résumé.txt");
  EXPECT_EQ(file.data_length, 5u);
  EXPECT_EQ(file.entries.size(), 3u);
  EXPECT_EQ(file.stored_checksum, EntrySetChecksum(file.entries));
  EXPECT_EQ(file.stored_hash, NameHashOfUpcased(layout.UpcaseWithTable(file.name)));
  EXPECT_EQ(layout.Read(layout.ClusterOffset(file.first_cluster), 5),
            (std::vector<uint8_t>{'h', 'e', 'l', 'l', 'o'}));
  FoundSet empty = layout.Find("Dir/" + long_name);
  EXPECT_EQ(empty.entries.size(), 5u);  // File, Stream, three Name entries
  EXPECT_EQ(empty.first_cluster, 0u);
  EXPECT_EQ(empty.stored_hash, NameHashOfUpcased(UpcaseAscii(empty.name)));
  // A rebuilt set from the found fields reproduces the driver's bytes apart
  // from timestamps.
  EntrySetSpec spec{file.name, file.attributes, file.first_cluster, file.data_length,
                    file.valid_data_length, file.NoFatChain()};
  auto rebuilt = BuildEntrySet(spec, [&](const std::u16string& n) { return layout.UpcaseWithTable(n); });
  EXPECT_EQ(rebuilt[1], file.entries[1]);
  EXPECT_EQ(rebuilt[2], file.entries[2]);
  EXPECT_TRUE(layout.Find("Dir").IsDirectory());
  EXPECT_EQ(layout.Tree().size(), 4u);
}
