// The command line of the built tool: usage, rejected lines and exit
// statuses, seen from outside the process.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "process.h"

using testsupport::Lines;
using testsupport::ProcessResult;
using testsupport::RunTool;
using testsupport::ToolPath;

namespace {

std::string Usage() {
  const std::string& p = ToolPath();
  return "Usage: " + p + " [-d --device] <path> [-c --corrupt] <description-of-corruption> or\n\n" +
         "Usage: " + p + " [-v --volume] <path> [-a --action] <description-of-action>\n\n" +
         "The corruption can be \"fat\", \"bitmap\" or \"upcase\".\n" +
         "The action can be \"truncate\", \"fallocate\", \"runtests\", \"filldisk\", " +
         "\"fragdisk\" or \"filldir\".\n";
}

// The standard error of a rejected line: glibc's own complaint (if any)
// followed by the usage, byte for byte.
void ExpectRejected(const std::vector<std::string>& args, const std::string& complaint = "") {
  ProcessResult r = RunTool(args);
  EXPECT_EQ(r.exit_status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, complaint + Usage());
}

}  // namespace

TEST(CommandLine, NothingToWorkOnPrintsTheUsage) {
  ExpectRejected({});
  ExpectRejected({"--help"});
  ExpectRejected({"-h"});
  ExpectRejected({"-c", "fat"});
  ExpectRejected({"-a", "rename"});
  ExpectRejected({"-d", ""});  // an empty path is no path
}

TEST(CommandLine, LeftoverWordsAreRejected) {
  ExpectRejected({"-v", "/mnt/x", "extra"});
  ExpectRejected({"extra", "-v", "/mnt/x"});
  ExpectRejected({"-d/dev/sdb1"}, ToolPath() + ": unrecognized option '-d/dev/sdb1'\n");
}

TEST(CommandLine, LibraryComplaintsComeBeforeTheUsage) {
  ExpectRejected({"-x"}, ToolPath() + ": unrecognized option '-x'\n");
  ExpectRejected({"--bogus", "-v", "/mnt"}, ToolPath() + ": unrecognized option '--bogus'\n");
  ExpectRejected({"-v"}, ToolPath() + ": option '-volume' requires an argument\n");
  ExpectRejected({"--volume"}, ToolPath() + ": option '--volume' requires an argument\n");
  ExpectRejected({"--help=1", "-v", "/m"}, ToolPath() + ": option '--help' doesn't allow an argument\n");
}

TEST(CommandLine, AmbiguousPrefixIsRejected) {
  // The empty name before "=" is a prefix of every long option.
  ProcessResult r = RunTool({"--=x", "-v", "/mnt"});
  EXPECT_EQ(r.exit_status, 1);
  ASSERT_GE(Lines(r.err).size(), 5u);
  EXPECT_NE(r.err.find("ambiguous"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.substr(r.err.size() - Usage().size()), Usage());
}

TEST(CommandLine, UnknownActionDoesNothingAndSucceeds) {
  for (const char* action : {"filldisk", "fallocate", "runtests", "", "nosuchtest"}) {
    ProcessResult r = RunTool({"-v", "/nonexistent/volume", "-a", action});
    EXPECT_EQ(r.exit_status, 0) << action;
    EXPECT_EQ(r.err, "") << action;
  }
  // A volume alone is accepted and does nothing.
  ProcessResult r = RunTool({"--vol=/nonexistent"});
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.err, "");
}
