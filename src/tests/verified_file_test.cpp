// VerifiedFile on a real exFAT volume mounted through exfat-fuse. Every write
// the object makes is recorded (the test binary is linked with
// --wrap=write), so the piece sizes are observed, not inferred.

#include "tests/verified_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "exfat_image.h"
#include "exfat_volume.h"

namespace {

bool g_recording = false;
std::vector<size_t> g_writes;

}  // namespace

extern "C" ssize_t __real_write(int fd, const void* buffer, size_t length);
extern "C" ssize_t __wrap_write(int fd, const void* buffer, size_t length) {
  if (g_recording && fd > 2) g_writes.push_back(length);
  return __real_write(fd, buffer, length);
}

namespace {

using testsupport::ExfatVolume;
using testsupport::ReadFileBytes;

// Records the sizes of the writes made while it lives.
struct WriteRecorder {
  WriteRecorder() {
    g_writes.clear();
    g_recording = true;
  }
  ~WriteRecorder() { g_recording = false; }
  std::vector<size_t> Writes() const { return g_writes; }
};

// The block an object seeded with `seed` must write: its own random_r
// generator, one 32-bit result per 4 bytes in the machine's byte order.
std::vector<unsigned char> ExpectedBlock(uint32_t seed, size_t chunk) {
  random_data generator{};
  char state[64]{};
  initstate_r(seed, state, sizeof state, &generator);
  srandom_r(seed, &generator);
  std::vector<unsigned char> block((chunk + 3) / 4 * 4);
  for (size_t i = 0; i < block.size(); i += 4) {
    int32_t word = 0;
    random_r(&generator, &word);
    memcpy(&block[i], &word, 4);
  }
  return block;
}

std::string VerifyError(VerifiedFile& file) {
  try {
    file.Verify();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

void Truncate(const std::string& path, off_t size) { ASSERT_EQ(truncate(path.c_str(), size), 0); }

void PokeByte(const std::string& path, off_t offset, unsigned char value) {
  int fd = open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, &value, 1, offset), 1);
  close(fd);
}

// Destroys a heap object whose file no longer matches it, expecting the
// destructor's verification to throw `message`.
void ExpectDestructorThrows(VerifiedFile* file, const std::string& message) {
  try {
    delete file;
    ADD_FAILURE() << "destructor did not throw";
  } catch (const std::exception& e) {
    EXPECT_EQ(std::string(e.what()), message);
  }
}

bool Exists(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0;
}

class VerifiedFileOnExfat : public ::testing::Test {
 protected:
  void SetUp() override {
    QVEXFAT_REQUIRE_MOUNTS();
    m_volume.emplace(16 << 20, 4096);
  }
  std::string PathOf(const std::string& name) const { return m_volume->Path() + "/" + name; }

  std::optional<ExfatVolume> m_volume;
};

TEST_F(VerifiedFileOnExfat, WritesChunkPiecesFromTheStartOfItsOwnBlock) {
  const std::string path = PathOf("f");
  srandom(4242);
  const uint32_t seed = static_cast<uint32_t>(random());
  const long second = random();
  srandom(4242);
  std::vector<size_t> writes;
  {
    WriteRecorder recorder;
    VerifiedFile file(path, 10000, 4096, false);
    writes = recorder.Writes();
    // Its private generator leaves the process's sequence alone.
    EXPECT_EQ(random(), second);
    EXPECT_EQ(file.Size(), 10000);
    EXPECT_EQ(file.DataBlock(), ExpectedBlock(seed, 4096));
  }
  EXPECT_EQ(writes, (std::vector<size_t>{4096, 4096, 1808}));

  const std::vector<uint8_t> bytes = ReadFileBytes(path);
  const std::vector<unsigned char> block = ExpectedBlock(seed, 4096);
  ASSERT_EQ(bytes.size(), 10000u);
  for (size_t k = 0; k < bytes.size(); ++k) ASSERT_EQ(bytes[k], block[k % 4096]) << "offset " << k;
  EXPECT_EQ(bytes[5000], block[904]);
}

TEST_F(VerifiedFileOnExfat, BlockIsRoundedUpToWholeWords) {
  VerifiedFile file(PathOf("odd"), 7 * 3, 7, true);
  EXPECT_EQ(file.DataBlock().size(), 8u);
  const std::vector<uint8_t> bytes = ReadFileBytes(PathOf("odd"));
  ASSERT_EQ(bytes.size(), 21u);
  for (size_t k = 0; k < 21; ++k) EXPECT_EQ(bytes[k], file.DataBlock()[k % 7]);
}

TEST_F(VerifiedFileOnExfat, AppendKeepsThePeriodAndCountsTheSize) {
  const std::string path = PathOf("grow");
  VerifiedFile file(path, 3 * 1000, 1000, false);
  {
    WriteRecorder recorder;
    file.Append(2500);
    EXPECT_EQ(recorder.Writes(), (std::vector<size_t>{1000, 1000, 500}));
  }
  EXPECT_EQ(file.Size(), 5500);
  const std::vector<uint8_t> bytes = ReadFileBytes(path);
  ASSERT_EQ(bytes.size(), 5500u);
  for (size_t k = 0; k < bytes.size(); ++k) ASSERT_EQ(bytes[k], file.DataBlock()[k % 1000]);
  EXPECT_EQ(VerifyError(file), "");
}

TEST_F(VerifiedFileOnExfat, AppendToAMissingFileThrowsWithThePath) {
  const std::string path = PathOf("gone");
  auto* file = new VerifiedFile(path, 0, 16, false);
  ASSERT_EQ(unlink(path.c_str()), 0);
  try {
    file->Append(16);
    ADD_FAILURE() << "append did not throw";
  } catch (const std::exception& e) {
    EXPECT_EQ(std::string(e.what()), path + ": No such file or directory (2)");
  }
  EXPECT_EQ(file->Size(), 0);
  ExpectDestructorThrows(file, "Failed to stat " + path);
}

TEST_F(VerifiedFileOnExfat, CatchesAFileGrownShrunkOrChangedBehindItsBack) {
  const std::string path = PathOf("victim");
  VerifiedFile file(path, 10000, 4096, false);
  ASSERT_EQ(VerifyError(file), "");

  Truncate(path, 10001);
  EXPECT_EQ(VerifyError(file), "Filesize lstat64 of " + path + " incorrect: 10001 vs 10000");
  Truncate(path, 9999);
  EXPECT_EQ(VerifyError(file), "Filesize lstat64 of " + path + " incorrect: 9999 vs 10000");
  Truncate(path, 10000);

  // Restore byte 9999 (it was cut away and came back as zero), then change
  // one byte in the second piece.
  PokeByte(path, 9999, file.DataBlock()[9999 % 4096]);
  ASSERT_EQ(VerifyError(file), "");
  const unsigned char expected = file.DataBlock()[5000 % 4096];
  const unsigned char changed = static_cast<unsigned char>(expected ^ 0x5a);
  PokeByte(path, 5000, changed);
  char message[64];
  snprintf(message, sizeof message, "Data compare failed at 5000: %02x vs %02x", expected, changed);
  EXPECT_EQ(VerifyError(file), message);

  PokeByte(path, 5000, expected);
  ASSERT_EQ(VerifyError(file), "");
}

TEST_F(VerifiedFileOnExfat, ExistingFileIsOpenedWithoutTruncation) {
  const std::string path = PathOf("stale");
  { VerifiedFile longer(path, 8192, 512, false); }
  ExpectDestructorThrows(new VerifiedFile(path, 1024, 512, false),
                         "Filesize lstat64 of " + path + " incorrect: 8192 vs 1024");
}

TEST_F(VerifiedFileOnExfat, ExpectedSizeFollowsATruncation) {
  const std::string path = PathOf("cut");
  VerifiedFile file(path, 8192, 1024, false);
  Truncate(path, 3000);
  EXPECT_EQ(VerifyError(file), "Filesize lstat64 of " + path + " incorrect: 3000 vs 8192");
  file.SetExpectedSize(3000);
  EXPECT_EQ(VerifyError(file), "");
}

TEST_F(VerifiedFileOnExfat, ChunkLengthZeroMakesAnEmptyFileAndWritesNothing) {
  const std::string path = PathOf("empty");
  {
    WriteRecorder recorder;
    VerifiedFile file(path, 0, 0, true);
    file.Append(0);
    EXPECT_TRUE(file.DataBlock().empty());
    EXPECT_EQ(VerifyError(file), "");
    EXPECT_TRUE(recorder.Writes().empty());
    EXPECT_THROW(file.Append(1), std::invalid_argument);  // would never progress
    EXPECT_TRUE(Exists(path));
  }
  EXPECT_FALSE(Exists(path));
}

TEST_F(VerifiedFileOnExfat, DestructorVerifiesAndRemovesOnlyWhenAsked) {
  const std::string kept = PathOf("kept"), removed = PathOf("removed");
  {
    VerifiedFile a(kept, 300, 100, false);
    VerifiedFile b(removed, 300, 100, true);
  }
  EXPECT_TRUE(Exists(kept));
  EXPECT_FALSE(Exists(removed));

  // A file damaged before the end of its scope fails there, and stays.
  const std::string damaged = PathOf("damaged");
  try {
    VerifiedFile file(damaged, 300, 100, true);
    Truncate(damaged, 299);
  } catch (const std::exception& e) {
    EXPECT_EQ(std::string(e.what()), "Filesize lstat64 of " + damaged + " incorrect: 299 vs 300");
  }
  EXPECT_TRUE(Exists(damaged));

  // A file removed behind its back cannot be verified, so it is not unlinked.
  const std::string vanished = PathOf("vanished");
  try {
    VerifiedFile file(vanished, 10, 10, true);
    ASSERT_EQ(unlink(vanished.c_str()), 0);
  } catch (const std::exception& e) {
    EXPECT_EQ(std::string(e.what()), "Failed to stat " + vanished);
  }
}

TEST_F(VerifiedFileOnExfat, FilesStayUnverifiedWhenAnExceptionIsInFlight) {
  const std::string first = PathOf("first"), second = PathOf("second");
  try {
    VerifiedFile a(first, 4096, 512, true);
    VerifiedFile b(second, 4096, 512, true);
    Truncate(first, 1);  // would fail verification if it ran
    throw std::runtime_error("test failed");
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "test failed");
  }
  EXPECT_TRUE(Exists(first));
  EXPECT_TRUE(Exists(second));
  struct stat info {};
  ASSERT_EQ(lstat(first.c_str(), &info), 0);
  EXPECT_EQ(info.st_size, 1);

  // Heap objects deleted while unwinding behave the same.
  const std::string heap = PathOf("heap");
  try {
    std::unique_ptr<VerifiedFile> owned = std::make_unique<VerifiedFile>(heap, 100, 10, true);
    throw 7;
  } catch (int) {
  }
  EXPECT_TRUE(Exists(heap));
}

TEST_F(VerifiedFileOnExfat, FullVolumeFailsTheWrite) {
  const std::string path = PathOf("huge");
  try {
    VerifiedFile file(path, 32 << 20, 65536, true);
    FAIL() << "a 32 MiB file fitted on a 16 MiB volume";
  } catch (const std::exception& e) {
    EXPECT_EQ(std::string(e.what()), "No space left on device (28)");
  }
  EXPECT_TRUE(Exists(path));  // the constructor failed: nothing verifies or removes it
}

}  // namespace
