// Device-mode runs on images crafted to keep a walk busy for hours where it
// does not need to: each must end quickly, print exactly its lines and leave
// the image as it was.

#include <gtest/gtest.h>

#include "device_expect.h"
#include "exfat_image.h"
#include "exfat_layout.h"
#include "process.h"
#include "scratch.h"

using namespace testsupport;

namespace {

constexpr int kQuickSeconds = 30;

ProcessResult RunQuickly(const std::vector<std::string>& args) {
  ProcessOptions options;
  options.timeout_seconds = kQuickSeconds;
  return RunTool(args, options);
}

std::vector<uint8_t> Le32(uint32_t value) {
  std::vector<uint8_t> bytes(4);
  PutLe(bytes.data(), value, 4);
  return bytes;
}

}  // namespace

// An up-case table chained over 4 MiB of the heap, every four bytes a run of
// 65,534 identity entries: 2^36 entries in all, far past the table's end.
TEST(SlowWalk, UpcaseTableOfLongRunsIsExpandedQuickly) {
  ScratchDir dir;
  const std::string image = dir / "runs.img";
  MakeExfatImage(image, 16ull << 20, 4096);
  {
    ExfatLayout layout(image);
    const StructureEntry upcase = layout.UpcaseEntry();
    std::vector<uint64_t> chain = layout.FatChain(upcase.first_cluster);
    ASSERT_FALSE(chain.empty());
    const std::vector<uint64_t> more = layout.Allocate(1024 - chain.size(), true, false);
    layout.WriteFat(chain.back(), static_cast<uint32_t>(more.front()));
    chain.insert(chain.end(), more.begin(), more.end());

    const uint64_t cluster_bytes = layout.Geometry().ClusterBytes();
    std::vector<uint8_t> runs;
    while (runs.size() < cluster_bytes) runs.insert(runs.end(), {0xFF, 0xFF, 0xFE, 0xFF});
    for (uint64_t cluster : chain) layout.Write(layout.ClusterOffset(cluster), runs);

    // A stored checksum of 0 cannot match: every byte adds at least 0xFE.
    layout.Write(upcase.entry_offset + 4, Le32(0));
    std::vector<uint8_t> length(8);
    PutLe(length.data(), chain.size() * cluster_bytes, 8);
    layout.Write(upcase.entry_offset + 24, length);
  }
  const std::vector<uint8_t> before = ReadFileBytes(image);

  const ProcessResult r = RunQuickly({"-d", image});
  ASSERT_EQ(r.signal, 0) << "still expanding after " << kQuickSeconds << " s";
  EXPECT_EQ(r.exit_status, 255);
  EXPECT_EQ(Lines(r.err), Concat(Preamble(image), {"Test failed: UpCase table checksum failed"}));
  EXPECT_TRUE(ReadFileBytes(image) == before) << "the image changed";
}

// BytesPerSectorShift 4 makes sectors of 16 bytes, too small for one 32-byte
// entry, and SectorsPerClusterShift 31 makes clusters of 2^31 sectors. The
// root directory then has no entry to visit, however long its chain: here
// 40 clusters, linked through FAT entries placed where the model looks for
// them with 16-byte sectors (four entries per sector).
TEST(SlowWalk, SectorsTooSmallForAnEntryAreNotVisitedOneByOne) {
  ScratchDir dir;
  const std::string image = dir / "tiny-sectors.img";
  MakeExfatImage(image, 16ull << 20, 4096);
  std::vector<uint8_t> boot = ReadBytes(image, 0, 512);
  const ExfatGeometry g = ParseGeometry(boot);
  // Clusters below 4 would share the first FAT sector's first 16 bytes with
  // entries 0 and 1.
  ASSERT_GE(g.root_cluster, 4u);
  constexpr uint64_t kChain = 40;
  ASSERT_LE(g.root_cluster + kChain - 1, g.cluster_count + 1);
  for (uint64_t k = 0; k < kChain; ++k) {
    const uint64_t cluster = g.root_cluster + k;
    const uint32_t next = k + 1 == kChain ? kEndOfChain : static_cast<uint32_t>(cluster + 1);
    WriteBytes(image, (g.fat_offset + cluster / 4) * 512 + (cluster % 4) * 4, Le32(next));
  }
  boot[108] = 4;
  boot[109] = 31;
  WriteBytes(image, 0, boot);
  const std::vector<uint8_t> before = ReadFileBytes(image);

  const ProcessResult r = RunQuickly({"-d", image});
  ASSERT_EQ(r.signal, 0) << "still walking the root after " << kQuickSeconds << " s";
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(Lines(r.err), Preamble(image));
  EXPECT_TRUE(ReadFileBytes(image) == before) << "the image changed";
}
