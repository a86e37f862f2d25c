// Hostile images: the run must end, by itself and without a memory fault
// (run these in the sanitizer build), whatever the directory holds. Where
// the outcome is fixed by the rules of the scan, the lines are compared too.

#include <gtest/gtest.h>

#include "crafted_volume.h"
#include "device_expect.h"
#include "exfat_image.h"
#include "exfat_layout.h"
#include "process.h"
#include "scratch.h"

using namespace testsupport;

namespace {

class HostileImage : public ::testing::Test {
 protected:
  void SetUp() override {
    m_image = m_dir / "hostile.img";
    MakeExfatImage(m_image, 16ull << 20, 4096);
  }

  // Runs the tool (bounded in time) and checks it ended normally, started
  // with the preamble and reported no memory fault.
  ProcessResult RunBounded(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args{"-d", m_image};
    args.insert(args.end(), extra.begin(), extra.end());
    ProcessOptions options;
    options.timeout_seconds = 120;
    const std::string preamble = Joined(Preamble(m_image));
    ProcessResult r = RunTool(args, options);
    EXPECT_EQ(r.signal, 0) << "killed or crashed";
    EXPECT_TRUE(r.exit_status == 0 || r.exit_status == 255) << r.exit_status;
    EXPECT_EQ(r.err.substr(0, preamble.size()), preamble);
    for (const char* fault : {"AddressSanitizer", "LeakSanitizer", "runtime error:", "ASSERT"})
      EXPECT_EQ(r.err.find(fault), std::string::npos) << r.err.substr(0, 4000);
    return r;
  }

  ScratchDir m_dir;
  std::string m_image;
};

}  // namespace

TEST_F(HostileImage, RootChainLoopingOnItself) {
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    const uint64_t root = layout.Geometry().root_cluster;
    craft.FillUnused(craft.Root(), layout.FirstFreeSlot(root), 128);
    layout.WriteFat(root, static_cast<uint32_t>(root));
  }
  RunBounded();
  RunBounded({"-c", "root"});
}

TEST_F(HostileImage, RootChainLoopingThroughTwoClusters) {
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    const uint64_t root = layout.Geometry().root_cluster;
    const uint64_t second = craft.ExtendDirectory(craft.Root());
    craft.FillUnused(craft.Root(), layout.FirstFreeSlot(root), 256);
    // An empty file in the loop: it must not be reported without end.
    craft.Place(craft.Root(), BuildEntrySet({u"again"}), u"again", 200);
    layout.WriteFat(second, static_cast<uint32_t>(root));
  }
  ProcessResult r = RunBounded();
  EXPECT_LT(r.err.size(), 1u << 20);
}

TEST_F(HostileImage, SetOfTwoHundredFiftySixEntries) {
  // SecondaryCount 255: a Stream entry and 254 File Name entries, of which
  // the first 17 carry the 255 characters. The wrong hash condemns it and all
  // 256 entries, over four sectors and two clusters, are cleared.
  std::u16string name;
  for (int i = 0; i < 255; ++i) name.push_back(static_cast<char16_t>(u'0' + i % 10));
  CraftedSet placed;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    craft.ExtendDirectory(craft.Root());
    craft.ExtendDirectory(craft.Root());
    const uint64_t first = layout.FirstFreeSlot(layout.Geometry().root_cluster);
    std::vector<uint64_t> c = layout.AllocateEach(1);
    auto set = BuildEntrySet({name, kAttrArchive, static_cast<uint32_t>(c[0]), 5, 5});
    while (set.size() < 256) {
      RawEntry extra{};
      extra[0] = kEntryName;
      extra[2] = 'z';
      set.push_back(extra);
    }
    set[0][1] = 255;
    set[1][4] ^= 0x22;
    FixSetChecksum(set);
    placed = craft.Place(craft.Root(), set, name, static_cast<int64_t>(first));
  }
  const std::vector<uint8_t> before = ReadFileBytes(m_image);
  ProcessResult r = RunBounded();
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.err, Joined(Concat(Preamble(m_image),
                                 {"Deleting " + ToUtf8(name) + " due to incorrect filename hash"})));
  EXPECT_EQ(DifferingOffsets(WithEntriesDeleted(before, {placed}), ReadFileBytes(m_image)),
            std::vector<uint64_t>{});
}

TEST_F(HostileImage, NameLengthBeyondItsEntries) {
  // NameLength 255 with one File Name entry: 15 characters are all there is.
  CraftedSet placed;
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    std::vector<uint64_t> c = layout.AllocateEach(1);
    auto set = BuildEntrySet({u"fifteen chars!!", kAttrArchive, static_cast<uint32_t>(c[0]), 5, 5});
    set[1][3] = 255;
    set[1][4] ^= 1;
    FixSetChecksum(set);
    placed = craft.Place(craft.Root(), set, u"");
  }
  ProcessResult r = RunBounded();
  EXPECT_EQ(r.err, Joined(Concat(Preamble(m_image),
                                 {"Deleting fifteen chars!! due to incorrect filename hash"})));
}

TEST_F(HostileImage, FirstClustersFarOutsideTheHeap) {
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    craft.Place(craft.Root(), BuildEntrySet({u"high", kAttrArchive, 0xFFFFFFFF, 10, 10}), u"high");
    craft.Place(craft.Root(), BuildEntrySet({u"one", kAttrArchive, 1, 10, 10}), u"one");
    craft.Place(craft.Root(), BuildEntrySet({u"dir", kAttrDirectory, 0xFFFFFFF7, 4096, 4096}), u"dir");
  }
  ProcessResult r = RunBounded();
  ExfatLayout layout(m_image);
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(Lines(r.err), Concat(Preamble(m_image), {InvalidClusterLine(0xFFFFFFFF, layout.Geometry()),
                                                     "Deleting high due to invalid first cluster",
                                                     InvalidClusterLine(1, layout.Geometry()),
                                                     "Deleting one due to invalid first cluster",
                                                     InvalidClusterLine(0xFFFFFFF7, layout.Geometry()),
                                                     "Deleting dir due to invalid first cluster"}));
}

TEST_F(HostileImage, BitmapShorterThanTheClusterCount) {
  // Sixteen bytes of bitmap cover 128 clusters; files lie beyond them.
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    const uint64_t last = layout.Geometry().cluster_count + 1;
    layout.AllocateChain({last - 1, last}, false);
    craft.Place(craft.Root(),
                BuildEntrySet({u"top", kAttrArchive, static_cast<uint32_t>(last - 1), 8192, 8192}), u"top");
    craft.Place(craft.Root(),
                BuildEntrySet({u"past", kAttrArchive, static_cast<uint32_t>(last + 1), 10, 10}), u"past");
    craft.AddFile(craft.Root(), u"low", 1);
    const StructureEntry bitmap = layout.BitmapEntry();
    std::vector<uint8_t> length(8);
    PutLe(length.data(), 16, 8);
    layout.Write(bitmap.entry_offset + 24, length);
  }
  RunBounded();
  RunBounded({"-c", "bitmap:start:2:range:200:value:1"});
  RunBounded({"-c", "bitmap:start:2:range:3:value:0"});
}

TEST_F(HostileImage, ContiguousChainsRunningOffTheHeap) {
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    const uint64_t last = layout.Geometry().cluster_count + 1;
    layout.SetBitmapBit(last, true);
    craft.Place(craft.Root(),
                BuildEntrySet({u"off the end", kAttrArchive, static_cast<uint32_t>(last), 20 * 4096,
                               20 * 4096, true}),
                u"off the end");
    craft.Place(craft.Root(),
                BuildEntrySet({u"dir off the end", kAttrDirectory, static_cast<uint32_t>(last),
                               1ull << 40, 1ull << 40, true}),
                u"dir off the end");
  }
  RunBounded();
}

TEST_F(HostileImage, UpcaseTableExpandingPastItsEnd) {
  // A run of 0xFFF0 identity entries, then 0xFF0 more values: the
  // expansion reaches far beyond 65,536 entries.
  {
    ExfatLayout layout(m_image);
    std::vector<uint8_t> table{0xFF, 0xFF, 0xF0, 0xFF};
    for (int i = 0; i < 0xFF0; ++i) {
      table.push_back('A');
      table.push_back(0);
    }
    // The table's two clusters hold 8 KiB; this fits.
    const StructureEntry upcase = layout.UpcaseEntry();
    ASSERT_LE(table.size(), 2 * layout.Geometry().ClusterBytes());
    std::vector<uint64_t> clusters = layout.FatChain(upcase.first_cluster);
    ASSERT_EQ(clusters.size(), 2u);
    layout.Write(layout.ClusterOffset(clusters[0]), std::vector<uint8_t>(table.begin(), table.begin() + 4096));
    layout.Write(layout.ClusterOffset(clusters[1]), std::vector<uint8_t>(table.begin() + 4096, table.end()));
    uint32_t sum = 0;
    for (uint8_t b : table) sum = ((sum & 1) ? 0x80000000u : 0) + (sum >> 1) + b;
    std::vector<uint8_t> field(8);
    PutLe(field.data(), sum, 4);
    layout.Write(upcase.entry_offset + 4, field.data(), 4);
    PutLe(field.data(), table.size(), 8);
    layout.Write(upcase.entry_offset + 24, field);
    VolumeCrafter craft(layout);
    craft.AddFile(craft.Root(), u"name", 1);
  }
  RunBounded();
  RunBounded({"-c", "upcase"});
}

TEST_F(HostileImage, StraySecondariesAndSecondaryCounts) {
  {
    ExfatLayout layout(m_image);
    VolumeCrafter craft(layout);
    std::vector<RawEntry> junk;
    RawEntry e{};
    e[0] = kEntryName;  // secondary with no File entry before it
    junk.push_back(e);
    e = RawEntry{};
    e[0] = kEntryStream;
    e[3] = 200;
    junk.push_back(e);
    e = RawEntry{};
    e[0] = kEntryFile;
    e[1] = 0;  // a File entry with no secondaries
    junk.push_back(e);
    e[1] = 255;  // one that expects 255 and meets the end of the directory
    junk.push_back(e);
    e = RawEntry{};
    e[0] = kEntryName;
    for (int i = 2; i < 32; ++i) e[i] = 0xFF;
    junk.push_back(e);
    craft.Place(craft.Root(), junk, u"junk");
  }
  RunBounded();
  RunBounded({"-c", "fat:start:2:range:0"});
}
