#include "campaign/options.h"

#include <getopt.h>
#include <gtest/gtest.h>

#include "campaign/machine/scratch_store.h"
#include "campaign/power/user_log.h"

namespace {

std::vector<std::string> Names(const std::vector<const Row*>& rows) {
  std::vector<std::string> names;
  for (const Row* row : rows) names.push_back(row->name);
  return names;
}

TEST(Options, SelectsRowsByNameAndGroupInTheCampaignsOrder) {
  std::string error;
  EXPECT_EQ(SelectRows({}, {}, error).size(), 19u);
  EXPECT_EQ(SelectRows({"damage"}, {}, error).size(), 10u);
  EXPECT_EQ(Names(SelectRows({"filldir", "upcase", "damage"}, {}, error)).back(), "filldir");
  EXPECT_EQ(Names(SelectRows({"rename", "upcase"}, {}, error)), (std::vector<std::string>{"upcase", "rename"}));
  EXPECT_TRUE(error.empty());
  SelectRows({"upcase", "fsck"}, {}, error);
  EXPECT_EQ(error, "no row is called \"fsck\" (see --help)");
  error.clear();
  // Field rows only when asked for; a prefix ends at a dot; a row's own
  // name beats a prefix.
  EXPECT_EQ(SelectRows({"fields"}, {}, error).size(), 340u);
  EXPECT_EQ(Names(SelectRows({"stream.DataLength.frag-a"}, {}, error)).front(), "stream.DataLength.frag-a.zeroes");
  EXPECT_EQ(SelectRows({"stream.DataLength.frag-a"}, {}, error).size(), 7u);
  EXPECT_TRUE(SelectRows({"stream.DataLen"}, {}, error).empty());
  EXPECT_EQ(error, "no row is called \"stream.DataLen\" (see --help)");
  error.clear();
  EXPECT_EQ(Names(SelectRows({"upcase"}, {}, error)), std::vector<std::string>{"upcase"});
  EXPECT_TRUE(error.empty());
  // The power-cut rows by their group, and the rows of a log by theirs.
  EXPECT_EQ(Names(SelectRows({"power-cut"}, {}, error)).back(), "power-cut.torn");
  UserLog log;
  std::vector<Row> replayed = {{"replay.entry-3", false, 4096, 4096, "", nullptr},
                               {"replay.synced", false, 4096, 4096, "", nullptr}};
  for (Row& row : replayed) row.replayed = &log;
  EXPECT_EQ(Names(SelectRows({"replay.synced", "upcase"}, replayed, error)),
            (std::vector<std::string>{"upcase", "replay.synced"}));
  EXPECT_EQ(SelectRows({"replay"}, replayed, error).size(), 2u);
  EXPECT_EQ(SelectRows({}, replayed, error).size(), 19u);
  EXPECT_TRUE(error.empty());
}

TEST(Options, ReadsAndWritesSizes) {
  EXPECT_EQ(ParseSize("384M"), 384u << 20);
  EXPECT_EQ(ParseSize("4k"), 4096u);
  EXPECT_EQ(ParseSize("2G"), 2ull << 30);
  EXPECT_EQ(ParseSize("1T"), 1ull << 40);
  for (const char* bad : {"", "M", "1000", "-4M", "+32M", " 32M", "4MB", "9999999999999999G"})
    EXPECT_EQ(ParseSize(bad), 0u) << bad;
  EXPECT_EQ(FormatSize(384u << 20), "384M");
  EXPECT_EQ(FormatSize(1536u << 10), "1536K");
  EXPECT_EQ(FormatSize(1000), "1000");
}


std::string Parsed(std::vector<std::string> words, CampaignOptions& options) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  std::string error;
  optind = 0;
  options = ParseOptions(static_cast<int>(argv.size()), argv.data(), error);
  return error;
}

TEST(Options, TakesTimeLimitsInSeconds) {
  CampaignOptions options;
  EXPECT_EQ(Parsed({"c", "--image", "x", "--limits", "checker=5,test=7"}, options), "");
  EXPECT_EQ(options.limits.checker.count(), 5);
  EXPECT_EQ(options.limits.mount.count(), 300);
  EXPECT_EQ(options.limits.test.count(), 7);
  for (const char* bad : {"checker=0", "mount=", "fsck=5", "checker=5s", "checker=99999999"})
    EXPECT_NE(Parsed({"c", "--image", "x", "--limits", bad}, options), "") << bad;
  // --limits refines --timeout, in either order.
  EXPECT_EQ(Parsed({"c", "--limits", "mount=9", "--timeout", "30", "--image", "x"}, options), "");
  EXPECT_EQ(options.limits.checker.count(), 30);
  EXPECT_EQ(options.limits.mount.count(), 9);
  EXPECT_EQ(options.limits.test.count(), 30);
  for (const char* bad : {"0", "", "-5", "5s", "99999999"})
    EXPECT_NE(Parsed({"c", "--image", "x", "--timeout", bad}, options), "") << bad;
}

}  // namespace
