#include "campaign/power/workload.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "campaign/trial/read_back.h"

namespace {

namespace fs = std::filesystem;

// "label path size" of each durable file, for comparing whole sets.
std::vector<std::string> Described(const std::vector<TreeFile>& files) {
  std::vector<std::string> described;
  for (const TreeFile& file : files) described.push_back(file.label + " " + file.path + " " + std::to_string(file.size));
  std::sort(described.begin(), described.end());
  return described;
}

bool Has(const std::vector<TreeFile>& files, const std::string& label) {
  return std::any_of(files.begin(), files.end(), [&](const TreeFile& f) { return f.label == label; });
}

const TreeFile& Named(const std::vector<TreeFile>& files, const std::string& label) {
  return *std::find_if(files.begin(), files.end(), [&](const TreeFile& f) { return f.label == label; });
}

// What each mark promises, and what a cut inside the step before it may
// not have: the promise grows mark by mark, and only the step's own files
// are exempt from it.
TEST(Workload, EachMarkPromisesWhatItsStepSynced) {
  const KnownTree tree("", 7);
  const Workload workload(tree, 7);
  const std::vector<std::string>& marks = workload.Marks();
  ASSERT_EQ(marks.front(), "new-empty");
  ASSERT_EQ(marks.back(), Workload::kUnmounted);

  EXPECT_EQ(Named(workload.DurableAt("new-empty"), "pc-empty").size, 0u);
  EXPECT_EQ(Described(workload.DurableAt("new-empty", true)), Described(tree.Files()));
  EXPECT_EQ(Named(workload.DurableAt("append"), "file2").size, tree.File("file2").size + 9000);
  EXPECT_FALSE(Has(workload.DurableAt("append", true), "file2"));
  EXPECT_TRUE(Has(workload.DurableAt("append", true), "pc-small"));
  EXPECT_NE(Named(workload.DurableAt("overwrite"), "big").seed, tree.File("big").seed);
  EXPECT_EQ(Named(workload.DurableAt("truncate"), "frag-a").size, 10000u);
  EXPECT_EQ(Named(workload.DurableAt("rename"), "file1").path, "file1-renamed");
  EXPECT_EQ(Named(workload.DurableAt("rename", true), "frag-b").path, "frag-b");
  EXPECT_FALSE(Has(workload.DurableAt("unlink"), "frag-b"));
  EXPECT_TRUE(Has(workload.DurableAt("mkdir"), "pc-dir/inside"));
  // A file never synced is promised by the unmount alone.
  EXPECT_FALSE(Has(workload.DurableAt("long-name"), "pc-unsynced"));
  EXPECT_TRUE(Has(workload.DurableAt(Workload::kUnmounted), "pc-unsynced"));
  EXPECT_FALSE(Has(workload.DurableAt(Workload::kUnmounted, true), "pc-unsynced"));
  EXPECT_EQ(workload.DurableAt(Workload::kUnmounted, true).size(), workload.DurableAt("long-name").size());
}

// Run on a plain directory: the marks come in order, after their steps,
// and the files there at the end are the ones promised, byte for byte.
TEST(Workload, RunLeavesWhatItPromises) {
  const fs::path root = fs::temp_directory_path() / ("workload-" + std::to_string(getpid()));
  fs::create_directories(root);
  const KnownTree tree("", 11);
  const Workload workload(tree, 11);
  tree.Populate(root);
  std::vector<std::string> marked;
  workload.Run(root, [&](const std::string& label) {
    marked.push_back(label);
    if (label == "new-small") {
      EXPECT_TRUE(fs::exists(root / "pc-small"));
    }
  });
  std::vector<std::string> expected = workload.Marks();
  expected.pop_back();  // the unmount's mark is the caller's
  EXPECT_EQ(marked, expected);
  for (const TreeFile& file : workload.DurableAt(Workload::kUnmounted)) {
    const FileRead read = Judged(file, Expect::kDurable, ReadBack(root, file, std::chrono::seconds(30)));
    EXPECT_EQ(read.state, FileState::kSame) << file.label << ": " << read.detail;
  }
  EXPECT_FALSE(fs::exists(root / "frag-b"));
  EXPECT_FALSE(fs::exists(root / "file1"));
  fs::remove_all(root);
}

}  // namespace
