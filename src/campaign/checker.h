#pragma once

#include <string>
#include <vector>

#include "campaign/child_process.h"

// One run of the filesystem checker (fsck.exfat) on an unmounted volume.
struct CheckerRun {
  std::string label;  // "fsck.exfat -n"
  ChildOutcome outcome;

  bool Clean() const { return outcome.exit_code == 0; }
  // It ran to its end and gave a verdict: fsck's exit codes 0 to 8 (8: it
  // could not work on the volume at all).
  bool Ran() const { return outcome.exit_code >= 0 && outcome.exit_code <= 8; }
  // What it found, in a line: its first "ERROR:" line, or else its first
  // line after the version banner.
  std::string FirstLine() const;
  // Every line it printed, then its exit, as diagnostics: "fsck.exfat -n: ...".
  std::vector<std::string> Transcript() const;
};

// `mode` is "-n" (look only) or "-y" (repair without asking).
CheckerRun RunChecker(const std::string& checker, const std::string& mode, const std::string& device);

// The version `checker -V` prints: "exfatprogs version : 1.2.0".
std::string CheckerVersion(const std::string& checker);
