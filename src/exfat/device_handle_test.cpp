#include "exfat/device_handle.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "exfat_image.h"
#include "loaded_volume_test_util.h"
#include "process.h"
#include "scratch.h"

namespace {

using exfat_test::StderrOf;

std::string MakeFile(const testsupport::ScratchDir& dir, size_t bytes, uint8_t fill) {
  const std::string path = dir / "device.bin";
  std::ofstream(path, std::ios::binary).write(std::string(bytes, static_cast<char>(fill)).data(),
                                              static_cast<std::streamsize>(bytes));
  return path;
}

// A loop device over an image, detached at the end of the test.
class LoopDevice {
 public:
  explicit LoopDevice(const std::string& image) {
    testsupport::ProcessResult r = testsupport::RunProcess({"losetup", "--find", "--show", image});
    if (r.exit_status == 0) m_device = r.out.substr(0, r.out.find('\n'));
  }
  ~LoopDevice() {
    if (!m_device.empty()) testsupport::RunProcess({"losetup", "-d", m_device});
  }
  const std::string& Path() const { return m_device; }

 private:
  std::string m_device;
};

}  // namespace

TEST(DeviceHandle, ReadsAndWritesWholeSectorsAtTheirOffsets) {
  testsupport::ScratchDir dir;
  const std::string path = MakeFile(dir, 4 * 512, 0x11);
  {
    DeviceHandle device;
    device.Open(path, 512, false);
    std::vector<uint8_t> two(1024, 0xA5);
    EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(device.WriteSectors(2, 1, two)); }), "");
    std::vector<uint8_t> back(512);
    EXPECT_TRUE(device.ReadSectors(1, 2, back));
    EXPECT_EQ(back, std::vector<uint8_t>(512, 0xA5));
  }
  const std::vector<uint8_t> image = testsupport::ReadFileBytes(path);
  for (size_t i = 0; i < image.size(); ++i)
    ASSERT_EQ(image[i], (i >= 512 && i < 1536) ? 0xA5 : 0x11) << "byte " << i;
}

TEST(DeviceHandle, ReadPastTheEndFailsSilently) {
  testsupport::ScratchDir dir;
  DeviceHandle device;
  device.Open(MakeFile(dir, 4 * 512, 0x11), 512, false);
  std::vector<uint8_t> buffer(2 * 512, 0x77);
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(device.ReadSectors(2, 3, buffer)); }), "");
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(device.ReadSectors(1, 4, buffer)); }), "");
  // A sector number whose byte offset does not fit is refused, not wrapped.
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(device.ReadSectors(1, UINT64_MAX - 1, buffer)); }), "");
}

TEST(DeviceHandle, BlockDeviceWritePastTheEndIsReported) {
  if (geteuid() != 0) GTEST_SKIP() << "loop devices need root";
  testsupport::ScratchDir dir;
  const std::string path = MakeFile(dir, 64 * 512, 0x11);
  LoopDevice loop(path);
  if (loop.Path().empty()) GTEST_SKIP() << "no loop device";
  const std::vector<uint8_t> before = testsupport::ReadFileBytes(path);
  {
    DeviceHandle device;
    device.Open(loop.Path(), 512, false);
    EXPECT_EQ(device.SectorCount(), 64);
    std::vector<uint8_t> buffer(2 * 512, 0xEE);
    EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(device.WriteSectors(2, 64, buffer)); }), "Failed to write 2 from 64\n");
  }
  EXPECT_EQ(testsupport::ReadFileBytes(path), before);
}
