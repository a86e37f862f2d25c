#include "campaign/trial/read_back.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

const TreeFile kFile{"file2", "file2", 40000, 2};

IsolatedRun<FileReading> Reading(bool listed, int error, uint64_t bytes, int64_t difference = -1) {
  IsolatedRun<FileReading> run;
  run.result = FileReading{listed, error, bytes, difference >= 0, static_cast<uint64_t>(difference >= 0 ? difference : 0)};
  return run;
}

// What a reading shows, named as a summary names it before and after a
// repair: fewer bytes, those there the same, are cut short; more bytes, or
// other ones, differ.
TEST(ReadBack, ShowsEachReadingsState) {
  const struct {
    IsolatedRun<FileReading> reading;
    const char* before;
    const char* after;
  } cases[] = {
      {Reading(true, 0, 40000), "1 same", "1 intact"},
      {Reading(true, 0, 40000, 4096), "differs: file2", "differs: file2"},
      {Reading(true, 0, 8192), "differs: file2", "cut short: file2"},
      {Reading(true, 0, 8192, 100), "differs: file2", "differs: file2"},
      {Reading(true, 0, 40001), "differs: file2", "differs: file2"},
      {Reading(false, 0, 0), "missing: file2", "lost: file2"},
      {Reading(true, ENOENT, 0), "missing: file2", "lost: file2"},
      {Reading(false, ENOTCONN, 0), "read error: file2", "read error: file2"},
      {Reading(true, EIO, 4096, 0), "read error: file2", "read error: file2"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Summarize({Judged(kFile, Expect::kAsWritten, c.reading)}), c.before);
    EXPECT_EQ(Summarize({Judged(kFile, Expect::kUntouched, c.reading)}), c.after);
  }
  EXPECT_EQ(Evidence(Judged(kFile, Expect::kHit, Reading(true, 0, 8192))), "read: file2: cut short, 8192 of 40000 bytes");
  EXPECT_EQ(Evidence(Judged(kFile, Expect::kAsWritten, Reading(true, 0, 9, 4))), "read: file2: differs, at byte 4");
  EXPECT_EQ(Evidence(Judged(kFile, Expect::kAsWritten, Reading(true, EIO, 0))), "read: file2: read error, EIO");
}

// A length made smaller explains the bytes past it, and no byte before.
TEST(ReadBack, AChangedFieldExplainsOnlyWhatComesAfterItsLength) {
  EXPECT_EQ(Judged(kFile, Expect::kExplained, Reading(true, 0, 40000, 8192), 8192).expect, Expect::kExplained);
  EXPECT_EQ(Judged(kFile, Expect::kExplained, Reading(true, 0, 8192), 8192).expect, Expect::kExplained);
  EXPECT_EQ(Judged(kFile, Expect::kExplained, Reading(true, 0, 40000, 8191), 8192).expect, Expect::kAsWritten);
  EXPECT_EQ(Judged(kFile, Expect::kExplained, Reading(true, 0, 4096), 8192).expect, Expect::kAsWritten);
  EXPECT_EQ(Evidence(Judged(kFile, Expect::kExplained, Reading(true, 0, 40000, 0))),
            "read: file2: differs, at byte 0 (the changed field reaches it)");
}

TEST(ReadBack, AReadingProcessThatDidNotFinishSaysNothingOfTheBytes) {
  IsolatedRun<FileReading> timed_out;
  timed_out.end = {Ending::Kind::kTimedOut, 0, false, false, std::chrono::seconds(300)};
  EXPECT_EQ(Judged(kFile, Expect::kAsWritten, timed_out).state, FileState::kTimedOut);
  IsolatedRun<FileReading> killed;
  killed.end = {Ending::Kind::kSignalled, 9, false, false, std::chrono::seconds(300)};
  EXPECT_EQ(Evidence(Judged(kFile, Expect::kUntouched, killed)),
            "read: file2: read error, the reading process: killed by signal 9 (SIGKILL)");
}

TEST(ReadBack, SummarizesGoodStatesAsCountsTheRestByName) {
  const std::vector<FileRead> files{{"a", Expect::kAsWritten, FileState::kReadError, "EIO"},
                                    {"b", Expect::kAsWritten, FileState::kSame, ""},
                                    {"c", Expect::kAsWritten, FileState::kDiffers, "at byte 0"},
                                    {"d", Expect::kDurable, FileState::kReadError, "EIO"}};
  EXPECT_EQ(Summarize(files), "1 same; differs: c; read error: a, d");
}

}  // namespace
