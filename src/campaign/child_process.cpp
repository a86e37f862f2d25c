#include "campaign/child_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <thread>

#include "campaign/interrupt.h"
#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPoll = std::chrono::milliseconds(100);
// How long a killed child may take to go.
constexpr auto kKillGrace = std::chrono::seconds(5);

void Decode(int status, ChildOutcome& outcome) {
  if (WIFEXITED(status)) outcome.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) outcome.signal = WTERMSIG(status);
}

// Kills the child's process group and waits a little for it; false when it
// did not go (a task stuck in the kernel cannot be killed).
bool Kill(pid_t pid, ChildOutcome& outcome) {
  kill(-pid, SIGKILL);
  kill(pid, SIGKILL);
  const auto deadline = Clock::now() + kKillGrace;
  while (Clock::now() < deadline) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      Decode(status, outcome);
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

// Reads what is in the pipe now, without waiting.
void Drain(int fd, std::string& output) {
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return;
    output.append(buffer, static_cast<size_t>(n));
  }
}

// Forks a child that runs `body` with its standard output and error on a
// pipe, in a process group of its own, and watches it until it ends, the
// limit passes or the campaign is interrupted. The child's output is read
// until the child itself has exited, not until the pipe closes: a daemon it
// left behind may hold the pipe open for good.
ChildOutcome Supervise(std::chrono::seconds limit, const std::function<void()>& body) {
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

  ChildOutcome outcome;
  const auto deadline = Clock::now() + limit;
  for (;;) {
    pollfd watched{read_end.Get(), POLLIN, 0};
    poll(&watched, 1, static_cast<int>(kPoll.count()));
    Drain(read_end.Get(), outcome.output);
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      Decode(status, outcome);
      Drain(read_end.Get(), outcome.output);
      return outcome;
    }
    if (const int signal_number = PendingInterrupt()) {
      Kill(pid, outcome);
      throw Interrupted(signal_number);
    }
    if (Clock::now() >= deadline) {
      outcome.timed_out = true;
      outcome.stuck = !Kill(pid, outcome);
      outcome.exit_code = -1;
      Drain(read_end.Get(), outcome.output);
      return outcome;
    }
  }
}

std::vector<pid_t> Children() {
  std::vector<pid_t> children;
  const std::string self = std::to_string(getpid());
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return children;
  while (const dirent* entry = readdir(proc)) {
    const pid_t pid = static_cast<pid_t>(atoi(entry->d_name));
    if (pid <= 0) continue;
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    char stat[512] = {};
    if (!fd.IsOpen() || read(fd.Get(), stat, sizeof stat - 1) <= 0) continue;
    // "pid (comm) state ppid ...": the name may hold anything but the last ')'.
    const char* after_name = strrchr(stat, ')');
    char state = 0;
    int parent = 0;
    if (after_name && sscanf(after_name + 1, " %c %d", &state, &parent) == 2 && parent == getpid())
      children.push_back(pid);
  }
  closedir(proc);
  return children;
}

}  // namespace

std::string ChildOutcome::Describe() const {
  if (timed_out) return stuck ? "timed out, and could not be stopped" : "timed out";
  if (signal != 0) return "killed by signal " + std::to_string(signal) + " (SIG" + sigabbrev_np(signal) + ")";
  return "exit " + std::to_string(exit_code);
}

std::vector<std::string> ChildOutcome::Lines() const {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < output.size()) {
    size_t end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    lines.push_back(output.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

ChildOutcome RunProgram(const std::vector<std::string>& argv, std::chrono::seconds limit) {
  return Supervise(limit, [&argv] {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    fprintf(stderr, "cannot run %s: %s\n", args[0], strerror(errno));
    _exit(127);
  });
}

ChildOutcome RunIsolated(std::chrono::seconds limit, const std::function<std::string()>& work) {
  return Supervise(limit, [&work] {
    std::string said;
    int code = 0;
    try {
      said = work();
    } catch (const std::exception& e) {
      said = std::string("error: ") + e.what();
      code = 1;
    }
    for (size_t at = 0; at < said.size();) {
      const ssize_t n = write(STDOUT_FILENO, said.data() + at, said.size() - at);
      if (n <= 0) break;
      at += static_cast<size_t>(n);
    }
    _exit(code);
  });
}

bool ReapStrays(std::chrono::seconds limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    const std::vector<pid_t> left = Children();
    if (left.empty()) return true;
    if (Clock::now() >= deadline) {
      for (pid_t pid : left) kill(pid, SIGKILL);
      const auto grace = Clock::now() + kKillGrace;
      while (!Children().empty() && Clock::now() < grace) {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

void BecomeSubreaper() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
