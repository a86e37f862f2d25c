// Device mode up to the FAT model: opening, the announcement, the geometry
// lines, every boot sector check in its order, the FAT's first two entries,
// short images and the refusal of a mounted device.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "device_expect.h"
#include "exfat_image.h"
#include "exfat_layout.h"
#include "mounted_volume.h"
#include "process.h"
#include "scratch.h"

using namespace testsupport;

namespace {

// A small image shared by the cases that damage its boot sector.
class BootSectorChecks : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pristine = m_dir / "pristine.img";
    MakeExfatImage(m_pristine, 8ull << 20, 4096);
    m_bytes = ReadFileBytes(m_pristine);
  }

  // Writes a copy of the pristine image with the given bytes replaced.
  std::string Damaged(const std::vector<std::pair<size_t, uint8_t>>& edits) {
    std::vector<uint8_t> bytes = m_bytes;
    for (auto [at, value] : edits) bytes[at] = value;
    const std::string path = m_dir / ("damaged" + std::to_string(m_count++) + ".img");
    WriteNewFile(path, bytes);
    return path;
  }

  // Runs the tool on an image whose boot sector fails with `message`: it
  // prints the announcement, the message and the parse failure, ends with
  // status 255 and writes nothing.
  void ExpectRejected(const std::vector<std::pair<size_t, uint8_t>>& edits,
                      const std::string& message) {
    SCOPED_TRACE("edit at " + std::to_string(edits.front().first));
    const std::string path = Damaged(edits);
    ExpectToolRun({"-d", path, "-c", "fat:start:2:range:1:value:0"}, 255,
                  Joined({AnnouncementLine(path, m_bytes.size()), message,
                          "Test failed: Failed to parse boot sector"}),
                  path, ReadFileBytes(path));
  }

  void ExpectAccepted(const std::vector<std::pair<size_t, uint8_t>>& edits) {
    SCOPED_TRACE("edit at " + std::to_string(edits.front().first));
    const std::string path = Damaged(edits);
    ExpectToolRun({"-d", path}, 0, Joined(Preamble(path)), path, ReadFileBytes(path));
  }

  ScratchDir m_dir;
  std::string m_pristine;
  std::vector<uint8_t> m_bytes;
  int m_count = 0;
};

}  // namespace

TEST(DeviceGeometry, KnownVolumePrintsKnownLines) {
  ScratchDir dir;
  const std::string image = dir / "known.img";
  MakeExfatImage(image, 64ull << 20, 4096);
  ProcessResult r = RunTool({"-d", image});
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "Device " + image + " opened, 131072 sectors in size (64 MBytes)\n"
                   "BootSector info (in hex):\n"
                   "\tClusterHeapOffset    0x001000\n"
                   "\tClusterCount         0x003e00\n"
                   "\tBytesPerSector       0x200\n"
                   "\tSectorsPerCluster    0x000008\n"
                   "\tNumberOfFats         0x1\n"
                   "\tFatOffset            0x000800\n"
                   "\tFatLength            0x000080\n"
                   "\tRootDirectoryStart   0x000005\n");
}

TEST(DeviceGeometry, ManyVolumeAndClusterSizesWithALabel) {
  // A clean volume prints its geometry and nothing else; the scan leaves the
  // metadata (the volume label's entry in the root included) untouched.
  ScratchDir dir;
  struct Case {
    uint64_t bytes;
    uint32_t cluster;
  };
  // Sparse images, so that large volumes cost little.
  const Case cases[] = {{4ull << 20, 512},     {16ull << 20, 1024},   {48ull << 20, 2048},
                        {100ull << 20, 0},     {256ull << 20, 16384}, {1ull << 30, 131072},
                        {3ull << 30, 1 << 20}, {512ull << 20, 65536}, {33ull << 20, 32768}};
  for (const Case& c : cases) {
    const std::string image =
        dir / ("v" + std::to_string(c.bytes >> 20) + "-" + std::to_string(c.cluster) + ".img");
    MakeExfatImage(image, c.bytes, c.cluster, "LABEL");
    ExfatLayout layout(image);
    if (c.cluster != 0) {
      ASSERT_EQ(layout.Geometry().ClusterBytes(), c.cluster);
    }
    ASSERT_EQ(layout.RootSlots()[0].bytes[0], kEntryLabel);
    const uint64_t metadata = layout.ClusterOffset(layout.Geometry().root_cluster + 1);
    const std::vector<uint8_t> before = ReadBytes(image, 0, metadata);

    ProcessResult r = RunTool({"-d", image});
    EXPECT_EQ(r.exit_status, 0) << image;
    EXPECT_EQ(r.out, "");
    std::vector<std::string> expected = GeometryLines(layout.Geometry());
    expected.insert(expected.begin(), AnnouncementLine(image, c.bytes));
    EXPECT_EQ(Lines(r.err), expected) << image;
    EXPECT_EQ(ReadBytes(image, 0, metadata), before) << "a run without -c changed " << image;
  }
}

TEST(DeviceGeometry, SizeCountsWholeSectorsOnly) {
  ScratchDir dir;
  const std::string image = dir / "odd.img";
  MakeExfatImage(image, 8ull << 20, 4096);
  std::filesystem::resize_file(image, (8ull << 20) + 300);
  ProcessResult r = RunTool({"-d", image});
  EXPECT_EQ(r.exit_status, 0);
  ASSERT_FALSE(Lines(r.err).empty());
  EXPECT_EQ(Lines(r.err)[0], "Device " + image + " opened, 16384 sectors in size (8 MBytes)");
}

TEST_F(BootSectorChecks, Signature) {
  ExpectRejected({{510, 0x00}}, "Invalid signature on boot sector");
  ExpectRejected({{511, 0x55}}, "Invalid signature on boot sector");
  ExpectRejected({{510, 0xAA}, {511, 0x55}}, "Invalid signature on boot sector");
}

TEST_F(BootSectorChecks, JumpBoot) {
  ExpectRejected({{0, 0xE9}}, "Invalid JMP BOOT on boot sector");
  ExpectRejected({{1, 0x00}}, "Invalid JMP BOOT on boot sector");
  ExpectRejected({{2, 0x91}}, "Invalid JMP BOOT on boot sector");
}

TEST_F(BootSectorChecks, FileSystemName) {
  for (size_t at = 3; at < 10; ++at) ExpectRejected({{at, 'x'}}, "Invalid filesystem name on boot sector");
  ExpectRejected({{3, 'e'}}, "Invalid filesystem name on boot sector");  // case matters
  ExpectRejected({{8, 0}}, "Invalid filesystem name on boot sector");
  // The eighth character is not compared.
  ExpectAccepted({{10, 'Q'}});
  ExpectAccepted({{10, 0}});
}

TEST_F(BootSectorChecks, MustBeZeroArea) {
  for (size_t at = 11; at <= 63; ++at)
    ExpectRejected({{at, 0x01}}, "Invalid data in non-zero area of boot sector");
  ExpectRejected({{63, 0x80}}, "Invalid data in non-zero area of boot sector");
  // PartitionOffset begins at 64 and is not checked.
  ExpectAccepted({{64, 0x01}});
  ExpectAccepted({{71, 0xFF}});
}

TEST_F(BootSectorChecks, FirstFailingCheckWins) {
  ExpectRejected({{510, 0}, {511, 0}, {3, 'x'}}, "Invalid signature on boot sector");
  ExpectRejected({{511, 0}, {0, 0}, {20, 1}}, "Invalid signature on boot sector");
  ExpectRejected({{2, 0x91}, {4, 'y'}, {30, 1}}, "Invalid JMP BOOT on boot sector");
  ExpectRejected({{9, '!'}, {12, 1}}, "Invalid filesystem name on boot sector");
}

TEST_F(BootSectorChecks, GeometryFieldsAreNotRangeChecked) {
  // Only the four checks decide; odd shift counts and FAT counts are printed
  // as they are. The run then fails later, at the FAT, not here.
  const std::string path = Damaged({{110, 0x02}});
  ProcessResult r = RunTool({"-d", path});
  EXPECT_EQ(r.exit_status, 0) << r.err;
  EXPECT_EQ(r.err, Joined(Preamble(path)));
  EXPECT_NE(r.err.find("\tNumberOfFats         0x2\n"), std::string::npos);
}

TEST_F(BootSectorChecks, FatEntryZeroAndOne) {
  ExfatLayout pristine(m_pristine);
  const size_t fat0 = pristine.FatEntryOffset(0);
  const size_t fat1 = pristine.FatEntryOffset(1);
  // The exception text keeps its own line end; the handler adds another.
  const std::pair<std::vector<std::pair<size_t, uint8_t>>, std::string> cases[] = {
      {{{fat0, 0xF0}}, "Invalid FAT entry 0: fffffff0"},
      {{{fat1 + 3, 0x0F}}, "Invalid FAT entry 1: fffffff"},
      // Both wrong: entry 0 is reported.
      {{{fat0, 0}, {fat0 + 1, 0}, {fat0 + 2, 0}, {fat0 + 3, 0}, {fat1, 0}}, "Invalid FAT entry 0: 0"},
  };
  for (const auto& [edits, message] : cases) {
    const std::string path = Damaged(edits);
    ExpectToolRun({"-d", path, "-c", "fat:start:2:range:1:value:0"}, 255,
                  Joined(Preamble(path)) + "Test failed: " + message + "\n\n", path, ReadFileBytes(path));
  }
}

TEST(DeviceOpen, ImageShorterThanTheBootRegion) {
  ScratchDir dir;
  const std::string full = dir / "full.img";
  MakeExfatImage(full, 8ull << 20, 4096);
  const std::vector<uint8_t> bytes = ReadFileBytes(full);
  for (size_t length : {size_t{0}, size_t{511}, size_t{5 * 512}, size_t{12 * 512 - 1}}) {
    const std::string path = dir / ("short" + std::to_string(length) + ".img");
    WriteNewFile(path, std::vector<uint8_t>(bytes.begin(), bytes.begin() + length));
    ExpectToolRun({"-d", path, "-c", "main"}, 255,
                  AnnouncementLine(path, length) + "\nTest failed: Failed to read main boot\n", path,
                  std::vector<uint8_t>(bytes.begin(), bytes.begin() + length));
  }
}

TEST(DeviceOpen, ImageEndingBeforeItsFat) {
  // The boot region reads, but the FAT lies beyond the end of the file: the
  // run must end through the FAT check, not crash.
  ScratchDir dir;
  const std::string full = dir / "full.img";
  MakeExfatImage(full, 8ull << 20, 4096);
  const std::vector<uint8_t> bytes = ReadFileBytes(full);
  const std::string path = dir / "cut.img";
  WriteNewFile(path, std::vector<uint8_t>(bytes.begin(), bytes.begin() + 24 * 512));
  ProcessResult r = RunTool({"-d", path, "-c", "fat:start:2:range:1:value:0"});
  EXPECT_EQ(r.exit_status, 255);
  EXPECT_EQ(r.signal, 0);
  const std::string prefix = Joined(Preamble(path)) + "Test failed: Invalid FAT entry 0: ";
  EXPECT_EQ(r.err.substr(0, prefix.size()), prefix) << r.err;
  EXPECT_EQ(std::filesystem::file_size(path), 24u * 512);
}

TEST(DeviceOpen, MissingPath) {
  ScratchDir dir;
  const std::string path = dir / "no-such.img";
  ProcessResult r = RunTool({"-d", path, "-c", "fat"});
  EXPECT_EQ(r.exit_status, 255);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "Test failed: " + path + ": No such file or directory (2)\n");
  EXPECT_FALSE(std::filesystem::exists(path)) << "the device must not be created";
}

TEST(DeviceOpen, MountedDeviceIsRefused) {
  QVEXFAT_REQUIRE_MOUNTS();
  ScratchDir dir;
  const std::string image = dir / "mounted.img";
  MakeExfatImage(image, 16ull << 20, 4096);
  const std::vector<uint8_t> before = ReadFileBytes(image);
  {
    MountedVolume volume(image, dir / "mnt", true);
    for (const char* description : {"fat:start:2:range:10:value:0", "main", "root", ""}) {
      ProcessResult r = RunTool({"-d", volume.LoopDevice(), "-c", description});
      EXPECT_EQ(r.exit_status, 255) << description;
      EXPECT_EQ(r.out, "");
      EXPECT_EQ(r.err, "Test failed: " + volume.LoopDevice() + ": Device or resource busy (16)\n");
    }
    volume.Unmount();
  }
  EXPECT_EQ(ReadFileBytes(image), before);
}

TEST(DeviceOpen, UnmountedLoopDeviceIsAccepted) {
  // The same loop device, not mounted: opened, measured in sectors, parsed.
  QVEXFAT_REQUIRE_MOUNTS();
  ScratchDir dir;
  const std::string image = dir / "loop.img";
  MakeExfatImage(image, 16ull << 20, 4096);
  ProcessResult attach = RunProcess({"losetup", "-f", "--show", image});
  ASSERT_EQ(attach.exit_status, 0) << attach.err;
  std::string loop = attach.out.substr(0, attach.out.find('\n'));
  ProcessResult r = RunTool({"-d", loop});
  RunProcess({"losetup", "-d", loop});
  EXPECT_EQ(r.exit_status, 0) << r.err;
  std::vector<std::string> expected = Preamble(image);
  expected[0] = AnnouncementLine(loop, 16ull << 20);
  EXPECT_EQ(Lines(r.err), expected);
}
