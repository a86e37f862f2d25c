#include "campaign/power/replay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>

#include "campaign/power/log_builder.h"

namespace {

constexpr uint64_t kDevice = 8 << 20;

// The device as a sequence of writes leaves it, worked out apart from the
// log: `changes` are (offset, bytes), an empty `bytes` with a length in
// `zeros` for a discard.
struct Change {
  uint64_t offset;
  std::vector<uint8_t> bytes;
  uint64_t zeros = 0;
};

std::vector<uint8_t> Expected(std::vector<uint8_t> device, const std::vector<Change>& changes) {
  for (const Change& change : changes) {
    if (change.zeros > 0)
      std::fill_n(device.begin() + static_cast<ptrdiff_t>(change.offset), change.zeros, 0);
    else
      std::copy(change.bytes.begin(), change.bytes.end(), device.begin() + static_cast<ptrdiff_t>(change.offset));
  }
  return device;
}

struct Replayed {
  std::vector<uint8_t> log;
  WriteLog read;
};

Replayed ReadBack(LogBuilder& builder) {
  Replayed replayed{builder.Bytes(), {}};
  const UniqueFd fd = MemoryFile(replayed.log);
  replayed.read = ReadWriteLog(fd.Get(), replayed.log.size(), kDevice);
  return replayed;
}

std::vector<uint8_t> ReplayOnto(const Replayed& replayed, const std::vector<uint8_t>& base,
                                const std::vector<std::pair<size_t, size_t>>& ranges) {
  const UniqueFd log = MemoryFile(replayed.log);
  const UniqueFd target = MemoryFile(base);
  for (const auto& [from, to] : ranges) Replay(replayed.read, log.Get(), target.Get(), from, to);
  return ReadFile(target.Get());
}

// Overlapping writes land in log order, a discard zeros what it names and
// nothing else, and a flush, FUA or mark between them changes nothing;
// replaying in two pieces is replaying at once.
TEST(Replay, AppliesEntriesInOrder) {
  for (const uint32_t sector : {512u, 4096u}) {
    SCOPED_TRACE(sector);
    const std::vector<uint8_t> base = Pattern(kDevice, 0x90);
    const std::vector<uint8_t> first = Pattern(8 * sector, 1);
    const std::vector<uint8_t> second = Pattern(3 * sector, 2);
    const std::vector<uint8_t> last = Pattern(sector, 3);
    LogBuilder builder(sector);
    builder.Write(10, first)
        .Flush()
        .Write(12, second, kLogFua)
        .Mark("half")
        .Discard(16, 4)
        .Write(kDevice / sector - 1, last, kLogFlush | kLogFua);
    const Replayed replayed = ReadBack(builder);
    const std::vector<Change> changes = {{10ull * sector, first},
                                         {12ull * sector, second},
                                         {16ull * sector, {}, 4ull * sector},
                                         {kDevice - sector, last}};

    const std::vector<uint8_t> whole = ReplayOnto(replayed, base, {{0, 6}});
    EXPECT_TRUE(whole == Expected(base, changes));
    EXPECT_TRUE(ReplayOnto(replayed, base, {{0, 3}, {3, 6}}) == whole);
    EXPECT_TRUE(ReplayOnto(replayed, base, {{0, 2}}) == Expected(base, {changes[0]}));
    EXPECT_TRUE(ReplayOnto(replayed, base, {{0, 4}}) == Expected(base, {changes[0], changes[1]}));
    EXPECT_TRUE(ReplayOnto(replayed, base, {{1, 5}}) == Expected(base, {changes[1], changes[2]}));
    EXPECT_TRUE(ReplayOnto(replayed, base, {{2, 2}, {5, 5}}) == base);
  }
}

// A write longer than the copy's buffer, not a multiple of it, and a
// discard as long: every byte of both, none around them.
TEST(Replay, CopiesWritesLongerThanItsBuffer) {
  const std::vector<uint8_t> base = Pattern(kDevice, 0x11);
  const std::vector<uint8_t> big = Pattern((3 << 20) + 4096 + 512, 0x22);
  LogBuilder builder(512);
  builder.Write(1, big).Discard(9000, 2049 * 2 + 3);
  const Replayed replayed = ReadBack(builder);
  EXPECT_TRUE(ReplayOnto(replayed, base, {{0, 1}}) == Expected(base, {{512, big}}));
  EXPECT_TRUE(ReplayOnto(replayed, base, {{1, 2}}) == Expected(base, {{9000 * 512, {}, (2049 * 2 + 3) * 512}}));
}

TEST(Replay, RefusesARangeOutsideTheLog) {
  LogBuilder builder(512);
  builder.Flush().Flush();
  const Replayed replayed = ReadBack(builder);
  const UniqueFd target = MemoryFile(Pattern(4096, 0));
  for (const auto& [from, to] : {std::pair<size_t, size_t>{0, 3}, {2, 1}, {3, 3}}) {
    try {
      Replay(replayed.read, -1, target.Get(), from, to);
      ADD_FAILURE() << from << ".." << to;
    } catch (const std::invalid_argument& e) {
      EXPECT_EQ(std::string(e.what()), fmt::format("replaying entries {} to {} of a log of 2", from, to));
    }
  }
}

}  // namespace
