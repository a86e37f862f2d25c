#include "cli/command_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Runs the parser on a copy of `words` (argv[0] included) and returns the
// options together with whatever went to standard error.
struct Parsed {
  CommandLineOptions options;
  std::string err;
};

Parsed Parse(std::vector<std::string> words) {
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  testing::internal::CaptureStderr();
  Parsed parsed{ParseCommandLine(static_cast<int>(words.size()), argv.data()), ""};
  parsed.err = testing::internal::GetCapturedStderr();
  return parsed;
}

}  // namespace

TEST(ParseCommandLine, StoresEachArgumentAsGiven) {
  Parsed p = Parse({"tool", "-d", "/dev/sdb1", "-c", " fat:start:1 ", "-v", "/mnt/x/", "-a", "Rename"});
  ASSERT_TRUE(p.options.ok);
  EXPECT_EQ(p.options.device, "/dev/sdb1");
  EXPECT_EQ(p.options.corrupt, " fat:start:1 ");
  EXPECT_EQ(p.options.volume, "/mnt/x/");
  EXPECT_EQ(p.options.action, "Rename");
  EXPECT_EQ(p.err, "");
}

TEST(ParseCommandLine, AcceptsLongPrefixAndEqualsForms) {
  Parsed p = Parse({"tool", "--device=/dev/a", "-corrupt=fat", "--vol", "/mnt", "-act=x"});
  ASSERT_TRUE(p.options.ok);
  EXPECT_EQ(p.options.device, "/dev/a");
  EXPECT_EQ(p.options.corrupt, "fat");
  EXPECT_EQ(p.options.volume, "/mnt");
  EXPECT_EQ(p.options.action, "x");
}

TEST(ParseCommandLine, RepeatedOptionKeepsTheLastValue) {
  Parsed p = Parse({"tool", "--device", "/dev/a", "--device", "/dev/b"});
  ASSERT_TRUE(p.options.ok);
  EXPECT_EQ(p.options.device, "/dev/b");
}

TEST(ParseCommandLine, EitherPathAloneIsEnough) {
  EXPECT_TRUE(Parse({"tool", "-d", "/dev/a"}).options.ok);
  EXPECT_TRUE(Parse({"tool", "-v", "/mnt"}).options.ok);
  EXPECT_TRUE(Parse({"tool", "-h", "-v", "/mnt"}).options.ok);
}

TEST(ParseCommandLine, ParsesAgainFromTheStart) {
  // getopt keeps global state; a second parse must not continue the first.
  EXPECT_EQ(Parse({"tool", "-v", "/a"}).options.volume, "/a");
  EXPECT_EQ(Parse({"tool", "-v", "/b"}).options.volume, "/b");
}
