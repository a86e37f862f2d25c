// The directory tree scan that runs before every corruption: clean images
// stay untouched, each faulty entry set is deleted on disk with its one line,
// the up-case table and the allocation bitmap are loaded or end the run.

#include <gtest/gtest.h>

#include "crafted_volume.h"
#include "device_expect.h"
#include "exfat_image.h"
#include "exfat_layout.h"
#include "process.h"
#include "scratch.h"

using namespace testsupport;

namespace {

std::string Deleting(const std::string& name, const std::string& why) {
  return "Deleting " + name + " due to " + why;
}

const char kFirstCluster[] = "invalid first cluster";
const char kHash[] = "incorrect filename hash";
const char kChecksum[] = "incorrect directory entry checksum";
const char kSize[] = "file size not matching cluster allocation";

class DirectoryScan : public ::testing::Test {
 protected:
  void SetUp() override {
    m_image = m_dir / "scan.img";
    MakeExfatImage(m_image, 32ull << 20, 4096);
  }

  // Runs the tool without a corruption and expects the preamble, `lines`,
  // status 0, and an image that differs from the one before the run only by
  // the deleted sets' cleared in-use bits.
  void ExpectScan(const std::vector<std::string>& lines, const std::vector<CraftedSet>& deleted) {
    ExpectToolRun({"-d", m_image}, 0, Joined(Concat(Preamble(m_image), lines)), m_image,
                  WithEntriesDeleted(ReadFileBytes(m_image), deleted));
  }

  ScratchDir m_dir;
  std::string m_image;
};

}  // namespace

TEST_F(DirectoryScan, ValidFilesAndDirectoriesAreKept) {
  std::vector<CraftedSet> none;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    CraftedDir sub, subsub;
    craft.AddFile(craft.Root(), u"one cluster", 1);
    craft.AddFile(craft.Root(), u"Fragmented File With A Long Name.dat", 5, true);
    craft.AddFile(craft.Root(), u"contiguous", 4, false, true);
    craft.AddDirectory(craft.Root(), u"dir", sub);
    craft.AddFile(sub, u"inner", 2, true);
    craft.AddDirectory(sub, u"deeper", subsub);
    craft.AddFile(subsub, u"deepest", 3, false, true);
  }
  ASSERT_EQ(CheckImage(m_image).exit_status, 0) << CheckImage(m_image).output;
  ExpectScan({}, none);
}

TEST_F(DirectoryScan, EmptyFilesAreDeletedAsInvalidFirstCluster) {
  std::vector<CraftedSet> deleted;
  std::string total;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    CraftedDir sub;
    deleted.push_back(craft.Place(craft.Root(), BuildEntrySet({u"empty"}), u"empty"));
    craft.AddFile(craft.Root(), u"kept", 1);
    craft.AddDirectory(craft.Root(), u"sub", sub);
    deleted.push_back(craft.Place(sub, BuildEntrySet({u"empty in sub"}), u"empty in sub"));
    total = InvalidClusterLine(0, layout.Geometry());
  }
  ExpectScan({total, Deleting("empty", kFirstCluster), total, Deleting("empty in sub", kFirstCluster)},
             deleted);
  ExfatLayout after(m_image);
  EXPECT_TRUE(after.Exists("kept"));
  EXPECT_TRUE(after.Exists("sub"));
  EXPECT_FALSE(after.Exists("empty"));
  EXPECT_FALSE(after.Exists("sub/empty in sub"));
  EXPECT_EQ(CheckImage(m_image).exit_status, 0) << CheckImage(m_image).output;
}

TEST_F(DirectoryScan, WrongNameHash) {
  CraftedSet bad;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    std::vector<uint64_t> cluster = layout.Allocate(1, true, false);
    auto set = BuildEntrySet({u"hashed", kAttrArchive, static_cast<uint32_t>(cluster[0]), 100, 100});
    set[1][4] ^= 0x01;  // NameHash low byte
    FixSetChecksum(set);
    bad = craft.Place(craft.Root(), set, u"hashed");
  }
  ExpectScan({Deleting("hashed", kHash)}, {bad});
  std::vector<uint8_t> types;
  ExfatLayout after(m_image);
  for (uint64_t offset : bad.entry_offsets) types.push_back(after.Read(offset, 1)[0]);
  EXPECT_EQ(types, (std::vector<uint8_t>{0x05, 0x40, 0x41}));
}

TEST_F(DirectoryScan, HashIsOverTheUpcasedName) {
  // A hash over the name as stored (lower case) is wrong; over the up-cased
  // name it is right.
  CraftedSet bad;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    std::vector<uint64_t> c = layout.AllocateEach(2);
    auto raw = [](const std::u16string& n) { return n; };
    bad = craft.Place(craft.Root(),
                      BuildEntrySet({u"lower", kAttrArchive, static_cast<uint32_t>(c[0]), 10, 10}, raw),
                      u"lower");
    craft.Place(craft.Root(), BuildEntrySet({u"MiXeD", kAttrArchive, static_cast<uint32_t>(c[1]), 10, 10}),
                u"MiXeD");
  }
  ExpectScan({Deleting("lower", kHash)}, {bad});
}

TEST_F(DirectoryScan, WrongSetChecksum) {
  CraftedSet bad;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    std::vector<uint64_t> cluster = layout.Allocate(1, true, false);
    auto set = BuildEntrySet({u"summed", kAttrArchive, static_cast<uint32_t>(cluster[0]), 100, 100});
    // A character slot beyond the name length: only the checksum sees it.
    set[2][2 + 2 * 10] = 'X';
    bad = craft.Place(craft.Root(), set, u"summed");
  }
  ExpectScan({Deleting("summed", kChecksum)}, {bad});
}

TEST_F(DirectoryScan, UnallocatedFirstCluster) {
  CraftedSet bad;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    CraftedSet file = craft.AddFile(craft.Root(), u"unmarked", 2);
    layout.SetBitmapBit(file.clusters[0], false);
    bad = file;
  }
  ExpectScan({Deleting("unmarked", kFirstCluster)}, {bad});
}

TEST_F(DirectoryScan, ChainNotMatchingTheSize) {
  std::vector<CraftedSet> bad;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    // Three clusters chained, size of one.
    std::vector<uint64_t> c = layout.Allocate(3, false, false);
    bad.push_back(craft.Place(craft.Root(),
                              BuildEntrySet({u"too long", kAttrArchive, static_cast<uint32_t>(c[0]), 4096, 4096}),
                              u"too long"));
    // Two clusters chained, size of four.
    std::vector<uint64_t> d = layout.Allocate(2, false, false);
    bad.push_back(craft.Place(craft.Root(),
                              BuildEntrySet({u"too short", kAttrArchive, static_cast<uint32_t>(d[0]), 16384, 16384}),
                              u"too short"));
    // Second cluster of the chain free in the bitmap.
    CraftedSet hole = craft.AddFile(craft.Root(), u"hole", 3, true);
    layout.SetBitmapBit(hole.clusters[1], false);
    bad.push_back(hole);
  }
  ExpectScan({Deleting("too long", kSize), Deleting("too short", kSize), Deleting("hole", kSize)}, bad);
}

TEST_F(DirectoryScan, SecondFileSharingAClusterIsDeleted) {
  CraftedSet second;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    CraftedSet first = craft.AddFile(craft.Root(), u"first", 2, true);
    auto set = BuildEntrySet({u"second", kAttrArchive, static_cast<uint32_t>(first.clusters[1]), 10, 10});
    second = craft.Place(craft.Root(), set, u"second");
    // A third file after it is checked normally.
    craft.AddFile(craft.Root(), u"third", 1);
  }
  ExpectScan({Deleting("second", kSize)}, {second});
  ExfatLayout after(m_image);
  EXPECT_TRUE(after.Exists("first"));
  EXPECT_TRUE(after.Exists("third"));
}

TEST_F(DirectoryScan, SetsStraddlingSectorAndClusterBoundaries) {
  std::vector<CraftedSet> bad;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    const CraftedDir root = craft.Root();
    craft.ExtendDirectory(root);  // the root now has two clusters: slots 0..255
    const uint64_t first_free = layout.FirstFreeSlot(root.first_cluster);
    std::vector<uint64_t> c = layout.AllocateEach(3);
    auto wrong_hash = [&](const std::u16string& name, uint64_t cluster) {
      auto set = BuildEntrySet({name, kAttrArchive, static_cast<uint32_t>(cluster), 10, 10});
      set[1][5] ^= 0x80;
      FixSetChecksum(set);
      return set;
    };
    craft.FillUnused(root, first_free, 15);
    // Slots 15, 16, 17: across the first sector boundary.
    bad.push_back(craft.Place(root, wrong_hash(u"sector", c[0]), u"sector", 15));
    craft.FillUnused(root, 18, 126);
    // Slots 126, 127 | 128, 129 (a two-name-entry set): across the cluster boundary.
    bad.push_back(craft.Place(root, wrong_hash(u"cluster boundary name", c[1]), u"cluster boundary name", 126));
    // A valid set straddling the next sector boundary of the second cluster stays.
    craft.FillUnused(root, 130, 143);
    craft.Place(root, BuildEntrySet({u"kept", kAttrArchive, static_cast<uint32_t>(c[2]), 10, 10}), u"kept", 143);
  }
  ExpectScan({Deleting("sector", kHash), Deleting("cluster boundary name", kHash)}, bad);
  ExfatLayout after(m_image);
  EXPECT_TRUE(after.Exists("kept"));
  // The deleted sets lie in two sectors and in two clusters.
  EXPECT_EQ(bad[0].entry_offsets[0] / 512 + 1, bad[0].entry_offsets[2] / 512);
  EXPECT_NE(bad[1].entry_offsets[1] / 4096, bad[1].entry_offsets[2] / 4096);
}

TEST_F(DirectoryScan, SubdirectoryValidDataLengthBoundsTheWalk) {
  // The same three-entry bad set in two directories: with 64 valid bytes
  // only two entries are visited and the set never completes; with 96 it does.
  CraftedSet visited;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    CraftedDir short_dir, long_dir;
    craft.AddDirectory(craft.Root(), u"valid64", short_dir, 64);
    craft.AddDirectory(craft.Root(), u"valid96", long_dir, 96);
    for (CraftedDir* d : {&short_dir, &long_dir}) {
      auto set = BuildEntrySet({u"beyond"});
      CraftedSet placed = craft.Place(*d, set, u"beyond", 0);
      if (d == &long_dir) visited = placed;
      // An empty file after the set, never visited in either directory.
      craft.Place(*d, BuildEntrySet({u"later"}), u"later", 3);
    }
  }
  ExfatLayout layout(m_image);
  ExpectScan({InvalidClusterLine(0, layout.Geometry()), Deleting("beyond", kFirstCluster)}, {visited});
}

TEST_F(DirectoryScan, IncompleteAndOddSets) {
  std::vector<CraftedSet> bad;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    std::vector<uint64_t> c = layout.AllocateEach(2);
    // A File entry promising two secondaries, cut short by the next File
    // entry after one: dropped without checks.
    auto cut = BuildEntrySet({u"cut short", kAttrArchive, 0, 0, 0});
    cut.pop_back();
    craft.Place(craft.Root(), cut, u"cut short");
    auto next = BuildEntrySet({u"next", kAttrArchive, static_cast<uint32_t>(c[0]), 10, 10});
    next[1][4] ^= 1;
    FixSetChecksum(next);
    bad.push_back(craft.Place(craft.Root(), next, u"next"));
    // A set with only a Stream Extension: empty name, hash of nothing is 0.
    auto nameless = BuildEntrySet({u"", kAttrArchive, static_cast<uint32_t>(c[1]), 10, 10});
    nameless.resize(2);
    nameless[0][1] = 1;
    nameless[1][4] = 0x34;
    FixSetChecksum(nameless);
    bad.push_back(craft.Place(craft.Root(), nameless, u""));
  }
  ExpectScan({Deleting("next", kHash), Deleting("", kHash)}, bad);
}

TEST_F(DirectoryScan, SubdirectoryAtTheRootClusterIsDeleted) {
  CraftedSet loop, parent_loop;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    const uint64_t root = layout.Geometry().root_cluster;
    loop = craft.Place(craft.Root(),
                       BuildEntrySet({u"loop", kAttrDirectory, static_cast<uint32_t>(root), 4096, 4096}),
                       u"loop");
    CraftedDir sub;
    craft.AddDirectory(craft.Root(), u"sub", sub);
    parent_loop = craft.Place(
        sub, BuildEntrySet({u"up", kAttrDirectory, static_cast<uint32_t>(sub.first_cluster), 4096, 4096}),
        u"up");
  }
  ExpectScan({Deleting("loop", kSize), Deleting("up", kSize)}, {loop, parent_loop});
}

TEST_F(DirectoryScan, LongestNameSetIsDeletedWhole) {
  // 255 characters in 17 File Name entries: a 19-entry set over two sectors.
  CraftedSet bad;
  std::u16string name;
  for (int i = 0; i < 255; ++i) name.push_back(static_cast<char16_t>(u'a' + i % 26));
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    std::vector<uint64_t> c = layout.AllocateEach(1);
    auto set = BuildEntrySet({name, kAttrArchive, static_cast<uint32_t>(c[0]), 1, 1});
    ASSERT_EQ(set.size(), 19u);
    set[1][4] ^= 0x10;
    FixSetChecksum(set);
    craft.FillUnused(craft.Root(), layout.FirstFreeSlot(layout.Geometry().root_cluster), 10);
    bad = craft.Place(craft.Root(), set, name, 10);
  }
  ExpectScan({Deleting(ToUtf8(name), kHash)}, {bad});
}

TEST_F(DirectoryScan, UpcaseTableEndingInFfffMapsToFfff) {
  // A short table: identity for 0..0x60, then a final 0xFFFF, which maps 'a'
  // (0x61) to 0xFFFF rather than starting a run.
  CraftedSet ascii_hash;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    std::vector<uint8_t> table;
    for (uint16_t v = 0; v <= 0x60; ++v) {
      table.push_back(static_cast<uint8_t>(v));
      table.push_back(0);
    }
    table.push_back(0xFF);
    table.push_back(0xFF);
    const StructureEntry upcase = layout.UpcaseEntry();
    layout.Write(layout.ClusterOffset(upcase.first_cluster), table);
    uint32_t sum = 0;
    uint64_t wide = 0;  // the loader's 64-bit form must agree for this table
    for (uint8_t b : table) {
      sum = ((sum & 1) ? 0x80000000u : 0) + (sum >> 1) + b;
      wide = ((wide << 31) & 0xFFFFFFFFu) + b + (wide >> 1);
    }
    ASSERT_EQ(wide, sum);
    std::vector<uint8_t> field(12);
    PutLe(&field[0], sum, 4);
    layout.Write(upcase.entry_offset + 4, field.data(), 4);
    PutLe(&field[4], table.size(), 8);
    layout.Write(upcase.entry_offset + 24, field.data() + 4, 8);

    std::vector<uint64_t> c = layout.AllocateEach(2);
    auto mapped = [](const std::u16string& n) {
      std::u16string out = n;
      for (char16_t& ch : out)
        if (ch == u'a') ch = 0xFFFF;
      return out;
    };
    craft.Place(craft.Root(), BuildEntrySet({u"a", kAttrArchive, static_cast<uint32_t>(c[0]), 1, 1}, mapped), u"a");
    ascii_hash = craft.Place(craft.Root(), BuildEntrySet({u"aa", kAttrArchive, static_cast<uint32_t>(c[1]), 1, 1}), u"aa");
  }
  ExpectScan({Deleting("aa", kHash)}, {ascii_hash});
}

TEST_F(DirectoryScan, DamagedUpcaseChecksumEndsTheRun) {
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    craft.Place(craft.Root(), BuildEntrySet({u"empty"}), u"empty");
    const StructureEntry upcase = layout.UpcaseEntry();
    std::vector<uint8_t> byte = layout.Read(upcase.entry_offset + 4, 1);
    byte[0] ^= 0x01;
    layout.Write(upcase.entry_offset + 4, byte);
  }
  ExpectToolRun({"-d", m_image, "-c", "root"}, 255,
                Joined(Concat(Preamble(m_image), {"Test failed: UpCase table checksum failed"})), m_image,
                ReadFileBytes(m_image));
}

TEST_F(DirectoryScan, UpcaseChainLeavingTheHeap) {
  uint64_t bad_cluster;
  {
    ExfatLayout layout(m_image);
    const StructureEntry upcase = layout.UpcaseEntry();
    ASSERT_GT(upcase.data_length, layout.Geometry().ClusterBytes());  // two clusters
    bad_cluster = layout.Geometry().cluster_count + 10;
    layout.WriteFat(upcase.first_cluster, static_cast<uint32_t>(bad_cluster));
  }
  ExfatLayout layout(m_image);
  ExpectToolRun({"-d", m_image}, 255,
                Joined(Concat(Preamble(m_image), {InvalidClusterLine(bad_cluster, layout.Geometry()),
                                                  "Test failed: UpCase table checksum failed"})),
                m_image, ReadFileBytes(m_image));
}

TEST_F(DirectoryScan, BitmapLongerThanItsChain) {
  {
    ExfatLayout layout(m_image);
    const StructureEntry bitmap = layout.BitmapEntry();
    std::vector<uint8_t> length(8);
    PutLe(length.data(), layout.Geometry().ClusterBytes() * 3, 8);
    layout.Write(bitmap.entry_offset + 24, length);
  }
  ExfatLayout layout(m_image);
  ExpectToolRun({"-d", m_image}, 255,
                Joined(Concat(Preamble(m_image), {InvalidClusterLine(0xFFFFFFFF, layout.Geometry()),
                                                  "Test failed: Allocation bitmap failed to load"})),
                m_image, ReadFileBytes(m_image));
}

TEST_F(DirectoryScan, BitmapAtClusterOne) {
  {
    ExfatLayout layout(m_image);
    const StructureEntry bitmap = layout.BitmapEntry();
    layout.Write(bitmap.entry_offset + 20, std::vector<uint8_t>{1, 0, 0, 0});
  }
  ExfatLayout layout(m_image);
  ExpectToolRun({"-d", m_image, "-c", "bitmap:start:2:range:1:value:1"}, 255,
                Joined(Concat(Preamble(m_image), {InvalidClusterLine(1, layout.Geometry()),
                                                  "Test failed: Allocation bitmap failed to load"})),
                m_image, ReadFileBytes(m_image));
}

TEST_F(DirectoryScan, UnicodeNamesArePrintedAsUtf8) {
  // Names of condemned sets reach the terminal as UTF-8, surrogate pairs
  // joined into one character, and a lone surrogate replaced by U+FFFD.
  std::vector<CraftedSet> deleted;
  const std::pair<std::u16string, std::string> names[] = {
      {u"résumé", "résumé"}, {u"Ελληνικά", "Ελληνικά"}, {u"日本語", "日本語"},
      {u"emoji 😀", "emoji 😀"}, {{u'a', char16_t(0xD800), u'b'}, "a\uFFFDb"}};
  std::vector<std::string> lines;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    for (const auto& [name, printed] : names) {
      auto upcase = [&](const std::u16string& n) { return layout.UpcaseWithTable(n); };
      deleted.push_back(craft.Place(craft.Root(), BuildEntrySet({name}, upcase), name));
      lines.push_back(InvalidClusterLine(0, layout.Geometry()));
      lines.push_back(Deleting(printed, kFirstCluster));
    }
  }
  ExpectScan(lines, deleted);
}
