#include "campaign/machine/child.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <thread>

#include <fmt/format.h>

#include "campaign/machine/interrupt.h"
#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPoll = std::chrono::milliseconds(100);
// How long a killed child may take to go.
constexpr auto kKillGrace = std::chrono::seconds(5);
// A wait longer than this is told, and again each time as long.
constexpr auto kLongWait = std::chrono::seconds(30);

std::function<void(const std::string&, std::chrono::seconds)>& LongWaitListener() {
  static std::function<void(const std::string&, std::chrono::seconds)> listener;
  return listener;
}

// Endings of adopted children reaped before anyone asked for them.
std::map<pid_t, Ending>& Reaped() {
  static std::map<pid_t, Ending> reaped;
  return reaped;
}

Ending Decode(int status) {
  Ending end;
  if (WIFSIGNALED(status)) {
    end.kind = Ending::Kind::kSignalled;
    end.code = WTERMSIG(status);
    end.core = WCOREDUMP(status);
  } else {
    end.code = WEXITSTATUS(status);
  }
  return end;
}

// Kills the child's process group and waits a little for it; false when it
// did not go (a task stuck in the kernel cannot be killed).
bool Kill(pid_t pid) {
  kill(-pid, SIGKILL);
  kill(pid, SIGKILL);
  const auto deadline = Clock::now() + kKillGrace;
  while (Clock::now() < deadline) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

// What is kept of a program's output: a checker looping over one error
// prints without end, and what it printed first tells what it is about.
constexpr size_t kOutputKept = 64 * 1024;

// Reads what the pipe holds; past kOutputKept bytes, counts them in `left_out`.
void Drain(int fd, std::string& output, uint64_t& left_out) {
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return;
    const size_t keep = std::min(static_cast<size_t>(n), kOutputKept - std::min(kOutputKept, output.size()));
    output.append(buffer, keep);
    left_out += static_cast<size_t>(n) - keep;
  }
}

// The output's last line says how much of it was left out.
void NoteLeftOut(std::string& output, uint64_t left_out) {
  if (left_out == 0) return;
  if (!output.empty() && output.back() != '\n') output += '\n';
  output += fmt::format("[{} more bytes of output left out]\n", left_out);
}

// Forks a child that runs `body` with its standard output and error on a
// pipe, in a process group of its own, and watches it until it ends, the
// limit passes or the campaign is interrupted. The output is read until
// the child itself has exited, not until the pipe closes: a daemon it left
// behind may hold the pipe open for good.
Ending Supervise(const std::string& what, std::chrono::seconds limit, const std::function<void()>& body,
                 std::string& output) {
  ThrowIfInterrupted();
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw ErrnoException(errno, "pipe2");
  UniqueFd read_end(fds[0]);
  UniqueFd write_end(fds[1]);
  fflush(nullptr);  // nothing buffered is written twice
  const pid_t pid = fork();
  if (pid < 0) throw ErrnoException(errno, "fork");
  if (pid == 0) {
    setpgid(0, 0);
    RestoreDefaultSignals();
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, STDIN_FILENO);
    dup2(write_end.Get(), STDOUT_FILENO);
    dup2(write_end.Get(), STDERR_FILENO);
    body();
    _exit(127);
  }
  setpgid(pid, pid);  // either of the two calls may run first
  write_end.Reset();
  fcntl(read_end.Get(), F_SETFL, O_NONBLOCK);

  uint64_t left_out = 0;
  const auto started = Clock::now();
  const auto deadline = started + limit;
  auto next_word = started + kLongWait;
  for (;;) {
    if (Clock::now() >= next_word && LongWaitListener()) {
      LongWaitListener()(what, std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started));
      next_word += kLongWait;
    }
    pollfd watched{read_end.Get(), POLLIN, 0};
    poll(&watched, 1, static_cast<int>(kPoll.count()));
    Drain(read_end.Get(), output, left_out);
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      Drain(read_end.Get(), output, left_out);
      NoteLeftOut(output, left_out);
      Ending end = Decode(status);
      end.limit = limit;
      return end;
    }
    if (const int signal_number = PendingInterrupt()) {
      Kill(pid);
      throw Interrupted(signal_number);
    }
    if (Clock::now() >= deadline) {
      Ending end;
      end.kind = Ending::Kind::kTimedOut;
      end.limit = limit;
      end.stuck = !Kill(pid);
      Drain(read_end.Get(), output, left_out);
      NoteLeftOut(output, left_out);
      return end;
    }
  }
}

// The parent's pid from /proc/<pid>/stat, or 0.
pid_t ParentOf(const char* pid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%s/stat", pid);
  UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  char stat[512] = {};
  if (!fd.IsOpen() || read(fd.Get(), stat, sizeof stat - 1) <= 0) return 0;
  // "pid (comm) state ppid ...": the name may hold anything but the last ')'.
  const char* after_name = strrchr(stat, ')');
  if (!after_name || after_name[1] != ' ' || after_name[2] == 0 || after_name[3] != ' ') return 0;
  return static_cast<pid_t>(strtol(after_name + 4, nullptr, 10));
}

}  // namespace

std::string Ending::Describe() const {
  switch (kind) {
    case Kind::kTimedOut:
      return "timed out after " + std::to_string(limit.count()) + " s" + (stuck ? ", and could not be stopped" : "");
    case Kind::kSignalled:
      return "killed by signal " + std::to_string(code) + " (SIG" + (sigabbrev_np(code) ? sigabbrev_np(code) : "?") +
             ")" + (core ? ", core dumped" : "");
    case Kind::kExited: break;
  }
  return "exit " + std::to_string(code);
}

std::vector<std::string> ProgramRun::Lines() const {
  std::vector<std::string> lines;
  for (size_t start = 0; start < output.size();) {
    size_t end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    lines.push_back(output.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

void TellLongWaits(std::function<void(const std::string& what, std::chrono::seconds so_far)> listener) {
  LongWaitListener() = std::move(listener);
}

ProgramRun RunProgram(const std::vector<std::string>& argv, std::chrono::seconds limit) {
  ProgramRun run;
  run.end = Supervise(
      argv.front().substr(argv.front().rfind('/') + 1), limit,
      [&argv] {
        std::vector<char*> args;
        for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        const int error = errno;
        fprintf(stderr, "cannot run %s: %s\n", args[0], strerror(error));
        _exit(error == ENOENT ? 127 : 126);  // as a shell says it
      },
      run.output);
  return run;
}

namespace child_detail {

void WriteResult(int fd, const void* bytes, size_t size) {
  const char* at = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t n = write(fd, at, size);
    if (n <= 0) _exit(125);
    at += n;
    size -= static_cast<size_t>(n);
  }
}

bool Isolate(std::chrono::seconds limit, const std::function<void(int)>& work, void* result, size_t size,
             Ending& end, std::string& output) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw ErrnoException(errno, "pipe2");
  UniqueFd read_end(fds[0]);
  UniqueFd write_end(fds[1]);
  end = Supervise(
      "the driver", limit,
      [&] {
        read_end.Reset();
        try {
          work(write_end.Get());
        } catch (const std::exception& e) {
          fprintf(stderr, "%s", e.what());
          _exit(1);
        }
        _exit(0);
      },
      output);
  write_end.Reset();
  // The child has ended: what it wrote is all in the pipe (a result is far
  // smaller than a pipe holds).
  fcntl(read_end.Get(), F_SETFL, O_NONBLOCK);
  size_t got = 0;
  while (got < size) {
    const ssize_t n = read(read_end.Get(), static_cast<char*>(result) + got, size - got);
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  return end.Succeeded() && got == size;
}

}  // namespace child_detail

IsolatedRun<std::string> RunIsolatedText(std::chrono::seconds limit, size_t capacity,
                                         const std::function<std::string()>& work) {
  struct Shared {
    void* memory;
    size_t bytes;
    ~Shared() { munmap(memory, bytes); }
  };
  // Its length first, then the text; pages the child does not touch cost nothing.
  const Shared shared{mmap(nullptr, sizeof(size_t) + capacity, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0),
                      sizeof(size_t) + capacity};
  if (shared.memory == MAP_FAILED) throw ErrnoException(errno, "mmap");
  auto* length = static_cast<size_t*>(shared.memory);
  char* text = static_cast<char*>(shared.memory) + sizeof(size_t);
  IsolatedRun<std::string> run;
  bool done = false;
  if (child_detail::Isolate(
          limit,
          [&](int fd) {
            const std::string result = work();
            *length = std::min(result.size(), capacity);
            memcpy(text, result.data(), *length);
            const bool finished = true;
            child_detail::WriteResult(fd, &finished, sizeof finished);
          },
          &done, sizeof done, run.end, run.output))
    run.result = std::string(text, std::min(*length, capacity));
  return run;
}

std::vector<pid_t> AdoptedChildren() {
  std::vector<pid_t> children;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return children;
  while (const dirent* entry = readdir(proc)) {
    const pid_t pid = static_cast<pid_t>(atoi(entry->d_name));
    if (pid > 0 && ParentOf(entry->d_name) == getpid() && !Reaped().contains(pid)) children.push_back(pid);
  }
  closedir(proc);
  return children;
}

std::optional<Ending> ChildEnded(pid_t pid) {
  if (const auto found = Reaped().find(pid); found != Reaped().end()) return found->second;
  int status = 0;
  if (waitpid(pid, &status, WNOHANG) != pid) return std::nullopt;
  return Reaped()[pid] = Decode(status);
}

Ending AwaitChild(pid_t pid, std::chrono::seconds limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    if (const std::optional<Ending> end = ChildEnded(pid)) {
      Reaped().erase(pid);
      return *end;
    }
    if (Clock::now() >= deadline) {
      Ending end;
      end.kind = Ending::Kind::kTimedOut;
      end.limit = limit;
      end.stuck = !Kill(pid);
      return end;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void BecomeSubreaper() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
