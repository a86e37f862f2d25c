#include "campaign/trial/image_walk.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <fmt/format.h>

namespace {

namespace fs = std::filesystem;

constexpr const char* kAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char* kEmpty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class ScratchDirectory {
 public:
  ScratchDirectory() : m_path(fs::temp_directory_path() / ("image-walk-" + std::to_string(getpid()))) {
    fs::create_directories(m_path);
  }
  ~ScratchDirectory() { fs::remove_all(m_path); }
  const fs::path& Path() const { return m_path; }
  void Write(const std::string& name, const std::string& text) const {
    fs::create_directories((m_path / name).parent_path());
    std::ofstream(m_path / name) << text;
  }

 private:
  fs::path m_path;
};

Walk WalkOf(std::vector<WalkedEntry> entries) {
  Walk walk;
  walk.finished = true;
  walk.entries = std::move(entries);
  return walk;
}

// A real tree walked in its own process: every file hashed, directories
// listed, in name order, whatever order the directory gives.
TEST(ImageWalk, ReadsEveryFileOfATree) {
  const ScratchDirectory tree;
  tree.Write("b/c/deep.txt", "abc");
  tree.Write("a.txt", "");
  const Walk walk = WalkVolume(tree.Path(), std::chrono::seconds(30));
  ASSERT_TRUE(walk.finished) << walk.end.Describe();
  ASSERT_EQ(walk.entries.size(), 4u);
  EXPECT_EQ(walk.entries[0].path, "a.txt");
  EXPECT_EQ(walk.entries[0].sha256, kEmpty);
  EXPECT_EQ(walk.entries[1].path, "b");
  EXPECT_TRUE(walk.entries[1].directory);
  EXPECT_EQ(walk.entries[3].path, "b/c/deep.txt");
  EXPECT_EQ(walk.entries[3].bytes, 3u);
  EXPECT_EQ(walk.entries[3].sha256, kAbc);
  EXPECT_EQ(walk.Summary(), "2 files in 2 directories");
  EXPECT_TRUE(Disagreements(walk, WalkVolume(tree.Path(), std::chrono::seconds(30))).empty());
}

TEST(ImageWalk, TellsWhereTwoReadsDisagree) {
  const WalkedEntry same{"same", false, 3, kAbc, 0};
  const Walk first = WalkOf({same, {"changed", false, 3, kAbc, 0}, {"flipped", false, 3, kAbc, 0},
                             {"gone", false, 0, kEmpty, 0}});
  const Walk second = WalkOf({same, {"changed", false, 3, "", 5}, {"flipped", false, 3, kEmpty, 0},
                              {"new", false, 0, kEmpty, 0}});
  EXPECT_EQ(Disagreements(first, second),
            (std::vector<std::string>{"changed: 3 bytes, sha256 ba7816bf8f01; then EIO after 3 bytes",
                                      "flipped: 3 bytes, sha256 ba7816bf8f01; then 3 bytes, sha256 e3b0c44298fc",
                                      "gone: 0 bytes, sha256 e3b0c44298fc; then not listed",
                                      "new: not listed; then 0 bytes, sha256 e3b0c44298fc"}));
  // A walk cut at its bound has not listed everything: what it lacks is no disagreement.
  Walk cut = WalkOf({same});
  cut.cut = true;
  EXPECT_TRUE(Disagreements(WalkOf({same, {"past the cut", false, 0, kEmpty, 0}}), cut).empty());
  std::vector<WalkedEntry> many;
  for (int i = 0; i < 25; ++i) many.push_back({fmt::format("f{}", i), false, 0, kEmpty, 0});
  const std::vector<std::string> lines = Disagreements(WalkOf(many), WalkOf({}));
  ASSERT_EQ(lines.size(), 21u);
  EXPECT_EQ(lines.back(), "and 5 more");
}

TEST(ImageWalk, ManifestAsSha256sumWritesIt) {
  const ScratchDirectory directory;
  directory.Write("m.sha256", fmt::format("{}  ./DCIM/a.jpg\n{} *empty\n\n", kAbc, kEmpty));
  const auto manifest = ReadManifest((directory.Path() / "m.sha256").string());
  EXPECT_EQ(manifest, (std::map<std::string, std::string>{{"DCIM/a.jpg", kAbc}, {"empty", kEmpty}}));
  directory.Write("bad.sha256", fmt::format("{}  fine\nabc  short\n", kAbc));
  EXPECT_THROW(
      {
        try {
          ReadManifest((directory.Path() / "bad.sha256").string());
        } catch (const std::runtime_error& e) {
          EXPECT_NE(std::string(e.what()).find("line 2: not a SHA-256 digest and a path"), std::string::npos);
          throw;
        }
      },
      std::runtime_error);

  const Walk walk = WalkOf({{"DCIM", true, 0, "", 0}, {"DCIM/a.jpg", false, 3, kAbc, 0}, {"empty", false, 1, kAbc, 0}});
  const std::vector<FileRead> reads = AgainstManifest(walk, {{"DCIM/a.jpg", kAbc}, {"empty", kEmpty}, {"lost", kAbc}},
                                                      Expect::kAsWritten);
  ASSERT_EQ(reads.size(), 3u);
  EXPECT_EQ(reads[0].state, FileState::kSame);
  EXPECT_EQ(reads[1].state, FileState::kDiffers);
  EXPECT_EQ(reads[2].state, FileState::kMissing);
  EXPECT_EQ(Unreadable(WalkOf({{"x", false, 0, "", 5}})).front().expect, Expect::kReadable);
}

}  // namespace
