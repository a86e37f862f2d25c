#include "tests/cluster_allocation.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <vector>

#include "platform/log_message.h"
#include "tests/name_pattern.h"
#include "tests/verified_file.h"

namespace {

constexpr int32_t kFiles = 10;
constexpr int kPasses = 10;

void RunSteps(const std::string& directory) {
  std::vector<std::unique_ptr<VerifiedFile>> files;
  LogMessage("Cluster allocation test\n");
  LogMessage("Create files...\n");
  for (int32_t i = 0; i < kFiles; ++i) {
    // Three random() draws per file, in this order: name, chunk, seed.
    const std::string path = directory + MakeFileName(i, 0);
    const uint64_t chunk = static_cast<uint64_t>(random() & 1023);
    files.push_back(std::make_unique<VerifiedFile>(path, 0, chunk, false));
  }

  int pass = 0;
  LogMessage("Append to files %d\n", pass);
  for (;;) {
    // Whole chunks only, so every file keeps its period.
    for (std::unique_ptr<VerifiedFile>& file : files)
      file->Append(static_cast<uint64_t>(random() & 1023) * file->ChunkLength());
    pass += 1;
    if (pass == kPasses) break;
    LogMessage("Append to files %d\n", pass);
  }

  LogMessage("Verify files\n");
  // The first file that fails stops the check; the rest are destroyed with
  // the exception in flight and stay unverified.
  for (std::unique_ptr<VerifiedFile>& file : files) delete file.release();
  LogMessage("Cluster allocation test success\n");
}

}  // namespace

void ClusterAllocationTest(const std::string& directory) {
  try {
    RunSteps(directory);
  } catch (const std::exception& e) {
    LogMessage("Cluster allocation test failed: %s\n", e.what());
    throw std::exception();
  }
}
