#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

// How a process ended: what the campaign judges a program by, never its
// words alone.
struct Ending {
  enum class Kind { kExited, kSignalled, kTimedOut };
  Kind kind = Kind::kExited;
  int code = 0;        // the exit status, or the signal's number
  bool core = false;   // a signal that dumped core
  bool stuck = false;  // timed out, and not even SIGKILL ended it
  std::chrono::seconds limit{0};

  bool Exited(int status) const { return kind == Kind::kExited && code == status; }
  bool Succeeded() const { return Exited(0); }
  bool Signalled() const { return kind == Kind::kSignalled; }
  bool TimedOut() const { return kind == Kind::kTimedOut; }
  // "exit 4", "killed by signal 11 (SIGSEGV), core dumped", "timed out
  // after 600 s".
  std::string Describe() const;
};

// A program run to its end, or past its time limit.
struct ProgramRun {
  Ending end;
  std::string output;  // standard output and error as one stream

  std::vector<std::string> Lines() const;
};

// Has `listener` told, every 30 s, of a program or a child working through
// the driver that is still being waited for: "fsck.exfat", "the driver".
void TellLongWaits(std::function<void(const std::string& what, std::chrono::seconds so_far)> listener);

// Runs a program (found on PATH when the name has no slash) with no input.
// Past `limit` it is killed, with everything in its process group.
ProgramRun RunProgram(const std::vector<std::string>& argv, std::chrono::seconds limit);

// Work done in a forked child, whose result comes back as its bytes: a
// driver that crashes or hangs under the work takes the child with it, not
// the campaign. `result` is empty when the child did not finish the work
// (killed, timed out, or an exception, whose text is in `output`).
template <typename T>
struct IsolatedRun {
  Ending end;
  std::optional<T> result;
  std::string output;
};

namespace child_detail {
// Runs `work` in a child that writes `size` bytes of its result to the
// descriptor it is given; true when all of them came back.
bool Isolate(std::chrono::seconds limit, const std::function<void(int result_fd)>& work, void* result, size_t size,
             Ending& end, std::string& output);
void WriteResult(int fd, const void* bytes, size_t size);
}  // namespace child_detail

template <typename T>
IsolatedRun<T> RunIsolated(std::chrono::seconds limit, const std::function<T()>& work) {
  static_assert(std::is_trivially_copyable_v<T>, "the result crosses the fork as bytes");
  IsolatedRun<T> run;
  T value{};
  if (child_detail::Isolate(
          limit, [&work](int fd) { const T done = work(); child_detail::WriteResult(fd, &done, sizeof done); }, &value,
          sizeof value, run.end, run.output))
    run.result = value;
  return run;
}

// As RunIsolated, for a result of any length up to `capacity` bytes, which
// comes back through memory shared with the child; a longer result is cut
// at `capacity`.
IsolatedRun<std::string> RunIsolatedText(std::chrono::seconds limit, size_t capacity,
                                         const std::function<std::string()>& work);

// The processes this one adopted as a subreaper (a FUSE daemon whose
// mount helper has returned).
std::vector<pid_t> AdoptedChildren();
// Waits up to `limit` for an adopted child to end and tells how it did; a
// child still there then is killed, and its ending is the timeout.
Ending AwaitChild(pid_t pid, std::chrono::seconds limit);
// How a child ended, if it has.
std::optional<Ending> ChildEnded(pid_t pid);
// Makes this process the reaper of its descendants' orphans.
void BecomeSubreaper();
