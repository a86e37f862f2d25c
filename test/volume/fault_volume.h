#pragma once

// A faultfs mount for running the built tool's volume tests on, and the
// checks the fault tests share.

// GCC 12 warns falsely inside std::regex's own code when built with the
// sanitizers; the setting has to hold until the end of the file that
// instantiates it.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "fault_fs.h"
#include "process.h"
#include "scratch.h"

namespace faulttest {

inline testsupport::FaultFsOptions Options(const std::string& fault, uint64_t size = 256ull << 20,
                                           uint32_t cluster = 4096) {
  testsupport::FaultFsOptions options;
  options.fault = fault;
  options.size = size;
  options.cluster = cluster;
  return options;
}

struct FaultVolume {
  explicit FaultVolume(const testsupport::FaultFsOptions& options) {
    fs.emplace(scratch / "backing", scratch / "mnt", options);
  }
  // The volume as an engineer passes it, with a trailing "/"; the tool's
  // working directory is then "<mount>//runtests/".
  std::string Arg() const { return fs->MountPoint() + "/"; }
  std::string Runtests() const { return Arg() + "/runtests/"; }
  uint64_t FreeClusters() const {
    struct statvfs info {};
    EXPECT_EQ(statvfs(fs->MountPoint().c_str(), &info), 0);
    return info.f_bfree;
  }
  testsupport::ProcessResult Run(const std::string& name) const {
    return testsupport::RunTool({"-v", Arg(), "-a", name});
  }

  testsupport::ScratchDir scratch;
  std::optional<testsupport::FaultFs> fs;
};

// Escapes a literal for use inside a regular expression.
inline std::string Literal(const std::string& text) {
  static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  return std::regex_replace(text, special, R"(\$&)");
}

// Matches `lines` against `patterns`, one regular expression per line.
inline void ExpectLinesMatch(const std::vector<std::string>& lines,
                             const std::vector<std::string>& patterns) {
  ASSERT_EQ(lines.size(), patterns.size()) << ::testing::PrintToString(lines);
  for (size_t i = 0; i < lines.size(); ++i)
    EXPECT_TRUE(std::regex_match(lines[i], std::regex(patterns[i])))
        << "line " << i << ": " << lines[i] << "\n  does not match " << patterns[i];
}

// A name made by the tool's name builder: a prefix of the letter pattern,
// then the index.
inline std::string NamePatternName(const std::string& index) {
  return "[a-zA-Z]{0,255}" + index;
}

}  // namespace faulttest
