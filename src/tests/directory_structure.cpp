#include "tests/directory_structure.h"

#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "platform/log_message.h"
#include "tests/name_pattern.h"
#include "tests/verified_file.h"

namespace {

constexpr int32_t kFiles = 1000;

// Warm-up whose every failure is ignored: a file created and unlinked behind
// its object's back, whose verification therefore throws.
void WarmUp(const std::string& directory) {
  try {
    const std::string path = directory + "TestFile";
    VerifiedFile file(path, 1024, 512, false);
    unlink(path.c_str());
  } catch (const std::exception&) {
  }
}

// Creates kFiles empty files with fresh random name lengths. The name's
// random() draw comes before the object's seed draw.
void CreateFiles(const std::string& directory, bool remove_when_done,
                 std::vector<std::unique_ptr<VerifiedFile>>& files) {
  for (int32_t i = 0; i < kFiles; ++i) {
    const std::string path = directory + MakeFileName(i, 0);
    files.push_back(std::make_unique<VerifiedFile>(path, 0, 0, remove_when_done));
  }
}

// Destroys the objects in order, each verifying (and maybe removing) its
// file. A throwing destructor still frees its object; the objects after it
// are then destroyed while the exception is in flight, so they neither
// verify nor remove: their files stay for inspection.
void DestroyFiles(std::vector<std::unique_ptr<VerifiedFile>>& files) {
  for (std::unique_ptr<VerifiedFile>& file : files) delete file.release();
  files.clear();
}

}  // namespace

void DirectoryStructureTest(const std::string& directory) {
  WarmUp(directory);
  try {
    std::vector<std::unique_ptr<VerifiedFile>> files;
    LogMessage("Creating 1000 test files\n");
    CreateFiles(directory, true, files);
    LogMessage("Deleting 1000 test files\n");
    DestroyFiles(files);
    LogMessage("Re-creating 1000 test files\n");
    CreateFiles(directory, false, files);
    DestroyFiles(files);
    LogMessage("Directory structure test success\n");
  } catch (const std::exception& e) {
    LogMessage("Directory structure test failed: %s\n", e.what());
    throw std::exception();
  }
}
