#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include <fmt/format.h>

#include "campaign/machine/child.h"
#include "campaign/power/log_builder.h"
#include "campaign/power/replay.h"
#include "campaign/power/replay_points.h"
#include "campaign/power/write_log.h"

// Logs QEMU's blklogwrites driver writes, made here with qemu-io (no
// machine needed): the format as another writer than the kernel lays it
// out, replayed against the image QEMU itself wrote.

namespace {

namespace fs = std::filesystem;

constexpr uint64_t kDevice = 4 << 20;
constexpr uint64_t kLog = 8 << 20;

bool OnPath(const std::string& program) {
  const char* path = getenv("PATH");
  std::istringstream directories(path != nullptr ? path : "");
  for (std::string directory; std::getline(directories, directory, ':');)
    if (!directory.empty() && access((directory + "/" + program).c_str(), X_OK) == 0) return true;
  return false;
}

class ScratchDirectory {
 public:
  ScratchDirectory() : m_path(fs::temp_directory_path() / fmt::format("qemu-log-{}", getpid())) {
    fs::create_directories(m_path);
  }
  ~ScratchDirectory() { fs::remove_all(m_path); }
  std::string File(const std::string& name, uint64_t bytes) const {
    const std::string path = (m_path / name).string();
    const UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!fd.IsOpen() || ftruncate(fd.Get(), static_cast<off_t>(bytes)) != 0) throw ErrnoException(errno, path);
    return path;
  }

 private:
  fs::path m_path;
};

UniqueFd Open(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.IsOpen()) throw ErrnoException(errno, path);
  return fd;
}

// A zeroed device after `runs` of (offset, length, byte), in order.
std::vector<uint8_t> Filled(const std::vector<std::tuple<uint64_t, uint64_t, uint8_t>>& runs) {
  std::vector<uint8_t> device(kDevice);
  for (const auto& [offset, length, byte] : runs)
    std::fill_n(device.begin() + static_cast<ptrdiff_t>(offset), length, byte);
  return device;
}

class QemuLog : public testing::TestWithParam<uint32_t> {
 protected:
  void SetUp() override {
    if (OnPath("qemu-io")) return;
    const char* ci = getenv("CI");
    if (ci != nullptr && std::string(ci) == "true") FAIL() << "qemu-io (Debian's qemu-utils) is not on PATH";
    GTEST_SKIP() << "qemu-io (Debian's qemu-utils) is not on PATH";
  }

  // Runs qemu-io's `commands` on the device through a log of the sector
  // size under test.
  void Log(const std::vector<std::string>& commands) {
    std::vector<std::string> argv = {"qemu-io"};
    for (const std::string& command : commands) argv.insert(argv.end(), {"-c", command});
    argv.insert(argv.end(), {"--image-opts",
                             fmt::format("driver=blklogwrites,file.driver=file,file.filename={},log.driver=file,"
                                         "log.filename={},log-sector-size={}",
                                         m_device, m_log, GetParam())});
    const ProgramRun run = RunProgram(argv, std::chrono::seconds(30));
    ASSERT_TRUE(run.end.Succeeded()) << run.end.Describe() << "\n" << run.output;
  }

  const ScratchDirectory m_scratch;
  const std::string m_device = m_scratch.File("device.img", kDevice);
  const std::string m_log = m_scratch.File("log.img", kLog);
};

// A workload of overlapping writes, zeroes written, a discard and flushes:
// replayed whole onto a zeroed device, the log gives QEMU's image byte for
// byte, and replayed to its first flush, what had been written by then.
TEST_P(QemuLog, ReplaysToTheImageQemuWrote) {
  ASSERT_NO_FATAL_FAILURE(Log({"write -P 0xaa 0 64k", "flush", "write -P 0x55 32k 64k", "write -z 8k 4k",
                               "discard 16k 4k", "write -P 0x33 1M 8k", "write -P 0x77 4088k 8k", "flush"}));
  const uint32_t sector = GetParam();
  const UniqueFd log_fd = Open(m_log);
  const WriteLog log = ReadWriteLog(log_fd.Get(), kLog, kDevice);
  EXPECT_EQ(log.sector_size, sector);

  // QEMU counts in its sector size as the kernel does, and writes the
  // zeroes of a write of zeroes into the log as data.
  ASSERT_GE(log.entries.size(), 8u);
  EXPECT_EQ(log.entries[0].offset, 0u);
  EXPECT_EQ(log.entries[0].bytes, 64u << 10);
  EXPECT_EQ(log.entries[0].flags, 0u);
  EXPECT_EQ(log.entries[0].data_at, 2 * sector);
  EXPECT_EQ(log.entries[1].flags, kLogFlush);
  EXPECT_EQ(log.entries[1].bytes, 0u);
  EXPECT_EQ(log.entries[2].offset, 32u << 10);
  EXPECT_EQ(log.entries[2].data_at, 4 * sector + (64u << 10));
  size_t discards = 0;
  for (const LogEntry& entry : log.entries) {
    if (!entry.IsDiscard()) continue;
    ++discards;
    EXPECT_EQ(entry.offset, 16u << 10);
    EXPECT_EQ(entry.bytes, 4u << 10);
  }
  EXPECT_EQ(discards, 1u);

  const UniqueFd device = Open(m_device);
  const std::vector<uint8_t> written = ReadFile(device.Get());
  EXPECT_TRUE(written == Filled({{0, 64 << 10, 0xaa},
                                 {32 << 10, 64 << 10, 0x55},
                                 {8 << 10, 4 << 10, 0},
                                 {16 << 10, 4 << 10, 0},
                                 {1 << 20, 8 << 10, 0x33},
                                 {kDevice - (8 << 10), 8 << 10, 0x77}}));
  const UniqueFd whole = MemoryFile(std::vector<uint8_t>(kDevice));
  Replay(log, log_fd.Get(), whole.Get(), 0, log.entries.size());
  EXPECT_TRUE(ReadFile(whole.Get()) == written);

  const std::vector<ReplayPoint> points = DurablePoints(log, 0, 100);
  ASSERT_GE(points.size(), 2u);
  EXPECT_EQ(points[0].applied, 2u);
  const UniqueFd first = MemoryFile(std::vector<uint8_t>(kDevice));
  Replay(log, log_fd.Get(), first.Get(), 0, points[0].applied);
  EXPECT_TRUE(ReadFile(first.Get()) == Filled({{0, 64 << 10, 0xaa}}));
  EXPECT_EQ(points.back().applied, log.entries.size());
}

INSTANTIATE_TEST_SUITE_P(SectorSizes, QemuLog, testing::Values(512u, 4096u),
                         [](const testing::TestParamInfo<uint32_t>& info) { return fmt::format("Of{}", info.param); });

}  // namespace
