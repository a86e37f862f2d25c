// The scan on volumes filled for real through exfat-fuse: nested
// directories, long and Unicode names, files of many sizes, fragmented
// files and empty files. Only the empty files' sets are deleted, and
// fsck.exfat still accepts the volume afterwards.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "crafted_volume.h"
#include "device_expect.h"
#include "exfat_image.h"
#include "exfat_layout.h"
#include "mounted_volume.h"
#include "process.h"
#include "scratch.h"

using namespace testsupport;

namespace {

void WriteFile(const std::string& path, size_t bytes, char fill) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::string block(4096, fill);
  for (size_t done = 0; done < bytes; done += block.size())
    out.write(block.data(), static_cast<std::streamsize>(std::min(block.size(), bytes - done)));
  if (!out) throw std::runtime_error("cannot write " + path);
}

// Fills a fresh image through exfat-fuse. Empty files have ASCII names, so
// that their deletion lines are plain text.
void Populate(const std::string& image, const std::string& mount_point) {
  MountedVolume volume(image, mount_point);
  const std::string m = volume.MountPoint();
  namespace fs = std::filesystem;
  fs::create_directories(m + "/a/b/c");
  fs::create_directories(m + "/A directory whose name is longer than fifteen characters/inner");
  fs::create_directories(m + "/empty dir");
  const std::string long_name(200, 'L');
  WriteFile(m + "/" + long_name, 5000, 'l');
  WriteFile(m + "/" + std::string(255, 'M'), 1, 'm');
  WriteFile(m + "/résumé.txt", 3000, 'r');
  WriteFile(m + "/Ελληνικά αβγ.txt", 9000, 'g');
  WriteFile(m + "/日本語のファイル名.bin", 70000, 'j');
  WriteFile(m + "/a/b/ÜBER-größe.dat", 4096, 'u');
  size_t sizes[] = {1, 511, 512, 4095, 4096, 4097, 65536, 1 << 20};
  int n = 0;
  for (size_t size : sizes) WriteFile(m + "/a/size" + std::to_string(n++), size, 's');
  WriteFile(m + "/empty", 0, 0);
  WriteFile(m + "/a/b/empty two", 0, 0);
  WriteFile(m + "/a/b/c/empty.three", 0, 0);
  WriteFile(m + "/A directory whose name is longer than fifteen characters/inner/zero", 0, 0);
  // Fragmentation: twenty one-cluster files, every other one removed, then a
  // file that must use the holes.
  for (int i = 0; i < 20; ++i) WriteFile(m + "/a/hole" + std::to_string(i), 4096, 'h');
  for (int i = 0; i < 20; i += 2) fs::remove(m + "/a/hole" + std::to_string(i));
  WriteFile(m + "/a/fragmented", 10 * 4096, 'f');
  volume.Unmount();
}

}  // namespace

TEST(PopulatedVolume, OnlyEmptyFilesAreDeleted) {
  QVEXFAT_REQUIRE_MOUNTS();
  ScratchDir dir;
  const std::string image = dir / "populated.img";
  MakeExfatImage(image, 64ull << 20, 4096);
  Populate(image, dir / "mnt");
  FsckVerdict clean = CheckImage(image);
  ASSERT_EQ(clean.exit_status, 0) << clean.output;

  // What the scan should condemn, worked out by the test's own reader: the
  // sets without a first cluster, in depth-first directory order.
  std::vector<std::string> lines = Preamble(image);
  std::vector<CraftedSet> deleted;
  size_t kept = 0;
  {
    ExfatLayout layout(image);
    const FoundSet fragmented = layout.Find("a/fragmented");
    std::vector<uint64_t> chain = layout.FatChain(fragmented.first_cluster);
    ASSERT_EQ(chain.size(), 10u);
    ASSERT_FALSE(fragmented.NoFatChain());
    bool gaps = false;
    for (size_t i = 1; i < chain.size(); ++i) gaps |= chain[i] != chain[i - 1] + 1;
    ASSERT_TRUE(gaps) << "the file meant to be fragmented is contiguous";

    for (const auto& [path, set] : layout.Tree()) {
      if (set.first_cluster != 0) {
        ++kept;
        continue;
      }
      lines.push_back(InvalidClusterLine(0, layout.Geometry()));
      lines.push_back("Deleting " + ToUtf8(set.name) + " due to invalid first cluster");
      deleted.push_back(CraftedSet{set.name, set.entry_offsets, {}});
    }
  }
  ASSERT_EQ(deleted.size(), 4u);
  const std::vector<uint8_t> before = ReadFileBytes(image);

  ProcessResult r = RunTool({"-d", image});
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(Lines(r.err), lines);
  const std::vector<uint8_t> after = ReadFileBytes(image);
  EXPECT_EQ(DifferingOffsets(WithEntriesDeleted(before, deleted), after), std::vector<uint64_t>{});
  for (const CraftedSet& set : deleted) {
    std::vector<uint8_t> types;
    for (uint64_t offset : set.entry_offsets) types.push_back(after[offset]);
    EXPECT_EQ(types, (std::vector<uint8_t>{0x05, 0x40, 0x41})) << ToUtf8(set.name);
  }
  ExfatLayout layout(image);
  EXPECT_EQ(layout.Tree().size(), kept);
  EXPECT_TRUE(layout.Exists("日本語のファイル名.bin"));
  EXPECT_TRUE(layout.Exists("a/b/ÜBER-größe.dat"));
  EXPECT_FALSE(layout.Exists("a/b/c/empty.three"));

  FsckVerdict verdict = CheckImage(image);
  EXPECT_EQ(verdict.exit_status, 0) << verdict.output;

  // A second run finds nothing more to delete.
  ProcessResult again = RunTool({"-d", image});
  EXPECT_EQ(again.exit_status, 0);
  EXPECT_EQ(Lines(again.err), Preamble(image));
  EXPECT_EQ(ReadFileBytes(image), after);
}

TEST(PopulatedVolume, ManyClusterSizes) {
  // The same content at the smallest and a large cluster size: nothing but
  // the empty files is touched.
  QVEXFAT_REQUIRE_MOUNTS();
  ScratchDir dir;
  for (uint32_t cluster : {512u, 131072u}) {
    const std::string image = dir / ("p" + std::to_string(cluster) + ".img");
    MakeExfatImage(image, 96ull << 20, cluster);
    {
      MountedVolume volume(image, dir / "mnt");
      std::filesystem::create_directories(volume.MountPoint() + "/x/y");
      WriteFile(volume.MountPoint() + "/x/y/data", 300000, 'd');
      WriteFile(volume.MountPoint() + "/x/nothing", 0, 0);
      for (int i = 0; i < 40; ++i)
        WriteFile(volume.MountPoint() + "/x/f" + std::to_string(i), 1000u * i, 'f');
      volume.Unmount();
    }
    ASSERT_EQ(CheckImage(image).exit_status, 0);
    ExfatLayout layout(image);
    const FoundSet nothing = layout.Find("x/nothing");
    const FoundSet f0 = layout.Find("x/f0");  // also empty
    ProcessResult r = RunTool({"-d", image});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(Lines(r.err),
              Concat(Preamble(image), {InvalidClusterLine(0, layout.Geometry()),
                                       "Deleting nothing due to invalid first cluster",
                                       InvalidClusterLine(0, layout.Geometry()),
                                       "Deleting f0 due to invalid first cluster"}))
        << cluster;
    EXPECT_FALSE(layout.Exists("x/nothing"));
    EXPECT_FALSE(layout.Exists("x/f0"));
    EXPECT_TRUE(layout.Exists("x/f39"));
    EXPECT_EQ(layout.Find("x/y/data").data_length, 300000u);
    EXPECT_EQ(CheckImage(image).exit_status, 0) << CheckImage(image).output;
  }
}
