#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

// How a child process ended, and what it wrote to its standard output and
// error (one stream, in the order written).
struct ChildOutcome {
  int exit_code = -1;  // when it exited
  int signal = 0;      // when a signal ended it
  bool timed_out = false;
  bool stuck = false;  // timed out, and not even SIGKILL ended it
  std::string output;

  bool Succeeded() const { return exit_code == 0; }
  // "exit 4", "signal 11 (SIGSEGV)", "timed out after 600 s".
  std::string Describe() const;
  std::vector<std::string> Lines() const;
};

// Runs a program (found on PATH when the name has no slash) with no input.
// Past `limit` it is killed, with everything in its process group.
ChildOutcome RunProgram(const std::vector<std::string>& argv, std::chrono::seconds limit);

// Runs `work` in a forked child. Whatever touches a volume through a
// driver runs so: a driver that crashes or hangs takes the child with it,
// not the campaign. The string `work` returns comes back as the output; a
// thrown exception as "error: <what>" and exit code 1.
ChildOutcome RunIsolated(std::chrono::seconds limit, const std::function<std::string()>& work);

// Waits up to `limit` for children this process inherited as a subreaper
// (a FUSE daemon after its unmount), then kills those left. True when none
// had to be killed. Not cut short by an interrupt: it is part of undoing.
bool ReapStrays(std::chrono::seconds limit);
// Makes this process the reaper of its descendants' orphans.
void BecomeSubreaper();
