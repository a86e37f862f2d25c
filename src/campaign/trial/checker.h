#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "campaign/machine/child.h"
#include "campaign/trial/observation.h"

// One run of the filesystem checker (fsck.exfat) on an unmounted volume.
struct CheckerRun {
  std::string label;  // "fsck.exfat -n"
  ProgramRun run;

  bool Clean() const { return run.end.Succeeded(); }
  // What it found, in a line: its first "ERROR:" line, or else its first
  // line after the version banner.
  std::string FirstLine() const;
  // Every line it printed, then its ending, as evidence: "fsck.exfat -n: ...".
  std::vector<std::string> Transcript() const;
  // Its verdict in a word: "clean", "damage", or how it failed to give one.
  std::string Verdict() const;
};

// `mode` is "-n" (look only) or "-y" (repair without asking).
CheckerRun RunChecker(const std::string& checker, const std::string& mode, const std::string& device,
                      std::chrono::seconds limit);

// The version `checker -V` prints: "exfatprogs version : 1.2.0".
std::string CheckerVersion(const std::string& checker);

// The run as the step's evidence and as a program run for the judge.
void Record(const CheckerRun& checker, Purpose purpose, StepObservation& step);
