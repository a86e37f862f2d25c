#include "tests/truncate_bug31031.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>

#include "platform/errno_exception.h"
#include "platform/log_message.h"
#include "platform/unique_fd.h"
#include "tests/name_pattern.h"
#include "tests/verified_file.h"
#include "tests/volume_probes.h"

namespace {

constexpr uint64_t kChunk = 1024;
constexpr uint64_t kInitialClusters = 30;

void TruncateTo(const std::string& path, int64_t size) {
  UniqueFd fd(open64(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777));
  if (!fd.IsOpen()) throw ErrnoException(errno, path);
  if (ftruncate64(fd.Get(), size) != 0) throw std::runtime_error("Failed to truncate file");
}

void RunSteps(const std::string& directory) {
  const uint64_t cluster = GetClusterLength(directory);
  const std::string path1 = directory + MakeFileName(0, 0);
  const std::string path2 = directory + MakeFileName(1, 0);
  const int64_t initial = static_cast<int64_t>(kInitialClusters * cluster);

  LogMessage("Create file1\n");
  VerifiedFile file1(path1, kInitialClusters * cluster, kChunk, false);
  LogMessage("Create file2\n");
  VerifiedFile file2(path2, kInitialClusters * cluster, kChunk, false);

  // Whole KiB per cluster, on purpose: a 1536-byte cluster appends 30 KiB.
  LogMessage("Append to file1\n");
  file1.Append((cluster / 1024) * kInitialClusters * kChunk);

  LogMessage("Truncate file1 once\n");
  TruncateTo(path1, initial);
  file1.SetExpectedSize(initial);

  LogMessage("Truncate file1 twice\n");
  const int64_t second = static_cast<int64_t>(16 * cluster - cluster);
  TruncateTo(path1, second);
  file1.SetExpectedSize(second);
  // Leaving the scope verifies file2, then file1.
}

}  // namespace

void TruncateBug31031Test(const std::string& directory) {
  try {
    RunSteps(directory);
  } catch (const std::exception& e) {
    LogMessage("Bug 31031 test failed: %s\n", e.what());
    throw std::exception();
  }
}
