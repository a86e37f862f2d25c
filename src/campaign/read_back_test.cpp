#include "campaign/read_back.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

const TreeFile kFile{"file2", "file2", 40000, 2};

FileReading Reading(bool listed, int error, uint64_t bytes, std::optional<uint64_t> difference = {}) {
  return {listed, error, bytes, difference, ""};
}

struct Judged {
  FileReading reading;
  const char* read_state;
  const char* repaired_state;
  bool read_hazard;
  bool repaired_hazard;
};

// What a reading says before and after a repair: only bytes read without an
// error that differ from those written are a hazard, and after a repair
// only within the length it kept.
TEST(ReadBack, JudgesEachReading) {
  const Judged cases[] = {
      {Reading(true, 0, 40000), "same", "intact", false, false},
      {Reading(true, 0, 40000, 4096), "differs", "differs", true, true},
      {Reading(true, 0, 8192), "differs", "cut short", true, false},
      {Reading(true, 0, 8192, 100), "differs", "differs", true, true},
      {Reading(true, 0, 40001), "differs", "differs", true, true},
      {Reading(false, 0, 0), "missing", "lost", false, false},
      {Reading(true, ENOENT, 0), "missing", "lost", false, false},
      {Reading(false, ENOTCONN, 0), "read error", "read error", false, false},
      {Reading(true, EIO, 4096, 0), "read error", "read error", false, false},
  };
  for (const Judged& c : cases) {
    SCOPED_TRACE(c.read_state + std::string(" / ") + c.repaired_state);
    EXPECT_EQ(JudgeRead(kFile, c.reading).state, c.read_state);
    EXPECT_EQ(JudgeRead(kFile, c.reading).hazard, c.read_hazard);
    EXPECT_EQ(JudgeRepaired(kFile, c.reading).state, c.repaired_state);
    EXPECT_EQ(JudgeRepaired(kFile, c.reading).hazard, c.repaired_hazard);
  }
  EXPECT_EQ(JudgeRepaired(kFile, Reading(true, 0, 8192)).detail, "8192 of 40000 bytes kept");
  EXPECT_EQ(JudgeRead(kFile, Reading(true, EIO, 0)).detail, "EIO");
}

TEST(ReadBack, AReadingProcessThatFailedIsNoVerdictOnTheBytes) {
  FileReading timed_out;
  timed_out.failure = "timed out";
  EXPECT_TRUE(JudgeRead(kFile, timed_out).timed_out);
  EXPECT_FALSE(JudgeRead(kFile, timed_out).hazard);
  FileReading killed;
  killed.failure = "the reading process failed: killed by signal 9 (SIGKILL)";
  EXPECT_EQ(JudgeRepaired(kFile, killed).state, "read error");
}

TEST(ReadBack, SummarizesGoodStatesAsCountsTheRestByName) {
  const std::vector<TreeFile> files{{"a", "a", 1, 1}, {"b", "b", 1, 2}, {"c", "c", 1, 3}, {"d", "d", 1, 4}};
  const std::vector<FileVerdict> verdicts{
      {"read error", "EIO", false, false}, {"same", "", false, false},
      {"differs", "at byte 0", true, false}, {"read error", "EIO", false, false}};
  EXPECT_EQ(Summarize(files, verdicts), "1 same; differs: c; read error: a, d");
}

}  // namespace
