#include "campaign/power/replay_points.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include <fmt/format.h>

#include "campaign/power/log_builder.h"

namespace {

// A log told in words: W a write, D a discard, F a flush, U a FUA write,
// P a write sent with preflush and FUA (a journal's commit), M:label a mark.
WriteLog LogOf(const std::string& words) {
  LogBuilder builder(512);
  std::istringstream in(words);
  uint64_t sector = 0;
  for (std::string word; in >> word; ++sector) {
    if (word == "W") builder.Write(sector, Pattern(512, 1));
    else if (word == "D") builder.Discard(sector, 1);
    else if (word == "F") builder.Flush();
    else if (word == "U") builder.Write(sector, Pattern(512, 2), kLogFua);
    else if (word == "P") builder.Write(sector, Pattern(512, 3), kLogFlush | kLogFua);
    else if (word.rfind("M:", 0) == 0) builder.Mark(word.substr(2));
    else throw std::invalid_argument(word);
  }
  const std::vector<uint8_t> bytes = builder.Bytes();
  const UniqueFd fd = MemoryFile(bytes);
  return ReadWriteLog(fd.Get(), bytes.size(), 1 << 20);
}

std::string Describe(const std::vector<ReplayPoint>& points) {
  std::string text;
  for (const ReplayPoint& point : points) {
    static const char* const kKinds[] = {"flush", "fua", "mark", "torn"};
    text += fmt::format("{}{}@{}:{}/{}", text.empty() ? "" : " ", point.applied, point.entry, kKinds[point.kind],
                        point.after_mark);
  }
  return text;
}

struct DurableCase {
  const char* log;
  size_t start;
  const char* points;  // applied@entry:kind/after_mark, in order
};

// Durable entries with nothing written between them are one point, kept
// at the run's end and named by its mark when it has one; a write that
// carries its own flush or FUA starts a point of its own.
TEST(DurablePoints, OnePointPerStateAFlushOrMarkLeaves) {
  const DurableCase cases[] = {
      {"W F W W F", 0, "2@1:flush/ 5@4:flush/"},
      {"W F M:a W F F M:b", 0, "3@2:mark/a 7@6:mark/b"},
      {"W M:a F W", 0, "3@1:mark/a"},
      {"M:a M:b F", 0, "3@1:mark/b"},
      {"F W U F", 0, "1@0:flush/ 4@3:flush/"},
      {"W U F W U", 0, "3@2:flush/ 5@4:fua/"},
      {"W P P", 0, "2@1:flush/ 3@2:flush/"},
      {"W D F", 0, "3@2:flush/"},
      {"M:setup W F W F", 2, "3@2:flush/setup 5@4:flush/setup"},
      {"W F W F", 2, "4@3:flush/"},
      {"W F W F", 4, ""},
      {"W F W F", 9, ""},
      {"W W D", 0, ""},
  };
  for (const DurableCase& c : cases)
    EXPECT_EQ(Describe(DurablePoints(LogOf(c.log), c.start, 100)), c.points) << c.log << " from " << c.start;
}

// Past `most`, an even spread that ends with the last point.
TEST(DurablePoints, SpreadsWhenThereAreMoreThanMost) {
  const WriteLog log = LogOf("W F W F W F W F W F W F W F W F W F W F");
  const std::pair<size_t, std::vector<size_t>> cases[] = {
      {10, {2, 4, 6, 8, 10, 12, 14, 16, 18, 20}},
      {11, {2, 4, 6, 8, 10, 12, 14, 16, 18, 20}},
      {4, {4, 10, 14, 20}},
      {3, {6, 12, 20}},
      {1, {20}},
      {0, {}},
  };
  for (const auto& [most, applied] : cases) {
    std::vector<size_t> got;
    for (const ReplayPoint& point : DurablePoints(log, 0, most)) got.push_back(point.applied);
    EXPECT_EQ(got, applied) << most;
  }
}

// Every prefix a torn epoch can stop at: after its first change, before
// its last, and an epoch of one change has none.
TEST(TornPoints, StopOnlyInsideAnEpoch) {
  const char* const log = "W W W F W F D W M:x W W";
  EXPECT_EQ(Describe(TornPoints(LogOf(log), 0, 1, 100)), "1@0:torn/ 2@1:torn/ 7@6:torn/ 10@9:torn/x");
  EXPECT_EQ(Describe(TornPoints(LogOf(log), 1, 1, 100)), "2@1:torn/ 7@6:torn/ 10@9:torn/x");
  EXPECT_EQ(Describe(TornPoints(LogOf("W P W W U W"), 0, 1, 100)), "3@2:torn/");
  EXPECT_EQ(Describe(TornPoints(LogOf("W F W F"), 0, 1, 100)), "");
}

// Whether a cut at `applied` leaves an epoch half done: a change of its
// own before the cut, and one after it, with no durable entry between.
bool InsideAnEpoch(const WriteLog& log, size_t applied) {
  bool before = false;
  for (size_t i = applied; i-- > 0 && !log.entries[i].IsDurable();) before = before || log.entries[i].ChangesDevice();
  bool after = false;
  for (size_t i = applied; i < log.entries.size() && !log.entries[i].IsDurable(); ++i)
    after = after || log.entries[i].ChangesDevice();
  return before && after;
}

// Drawn from all of them: as many as asked, sorted, distinct, each inside
// an epoch, the same for the same seed and spread over the whole log.
TEST(TornPoints, DrawsAsManyAsAskedFromTheSeed) {
  std::string words;
  for (int epoch = 0; epoch < 50; ++epoch) words += "W W W W W W W W W W W W W W W W W W W W F ";
  const WriteLog log = LogOf(words);
  const std::vector<ReplayPoint> all = TornPoints(log, 0, 0, 100000);
  ASSERT_EQ(all.size(), 50u * 19);
  std::set<size_t> possible;
  for (const ReplayPoint& point : all) possible.insert(point.applied);

  const std::vector<ReplayPoint> drawn = TornPoints(log, 0, 7, 30);
  ASSERT_EQ(drawn.size(), 30u);
  for (size_t i = 0; i < drawn.size(); ++i) {
    EXPECT_TRUE(possible.count(drawn[i].applied)) << drawn[i].applied;
    EXPECT_TRUE(InsideAnEpoch(log, drawn[i].applied)) << drawn[i].applied;
    EXPECT_EQ(drawn[i].entry, drawn[i].applied - 1);
    EXPECT_EQ(drawn[i].kind, ReplayPoint::kTorn);
    if (i > 0) {
      EXPECT_LT(drawn[i - 1].applied, drawn[i].applied);
    }
  }
  EXPECT_LT(drawn.front().applied, log.entries.size() / 4);
  EXPECT_GT(drawn.back().applied, log.entries.size() * 3 / 4);
  EXPECT_EQ(Describe(TornPoints(log, 0, 7, 30)), Describe(drawn));
  EXPECT_NE(Describe(TornPoints(log, 0, 8, 30)), Describe(drawn));
  EXPECT_TRUE(TornPoints(log, 0, 7, 0).empty());
  for (const ReplayPoint& point : all) EXPECT_TRUE(InsideAnEpoch(log, point.applied)) << point.applied;
}

// Over many seeds each prefix is drawn as often as any other: a cut is as
// likely early in an epoch as late.
TEST(TornPoints, DrawEveryPrefixAsOften) {
  std::string words;
  for (int write = 0; write < 101; ++write) words += "W ";
  const WriteLog log = LogOf(words);
  std::vector<size_t> drawn(log.entries.size() + 1);
  for (uint32_t seed = 0; seed < 2000; ++seed)
    for (const ReplayPoint& point : TornPoints(log, 0, seed, 10)) ++drawn[point.applied];
  // 2000 draws of 10 from 100: 200 each, with a standard deviation of 13.
  EXPECT_EQ(drawn[0], 0u);
  for (size_t applied = 1; applied <= 100; ++applied) {
    EXPECT_GT(drawn[applied], 150u) << applied;
    EXPECT_LT(drawn[applied], 250u) << applied;
  }
  EXPECT_EQ(drawn[101], 0u);
}

// A seed in a report must draw the same points on another build and after
// an upgrade: the generator's raw output decides, not a library's
// distribution.
TEST(TornPoints, DrawTheSamePointsEverywhere) {
  std::string words;
  for (int epoch = 0; epoch < 4; ++epoch) words += "W W W W W W F ";
  EXPECT_EQ(Describe(TornPoints(LogOf(words), 0, 2024, 5)), "5@4:torn/ 9@8:torn/ 11@10:torn/ 15@14:torn/ 16@15:torn/");
}

}  // namespace
