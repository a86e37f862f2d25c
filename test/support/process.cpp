#include "process.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

#ifndef QVEXFAT_BINARY
#error "QVEXFAT_BINARY must name the built tool"
#endif

namespace testsupport {
namespace {

void CloseIfOpen(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// The ELF class, data encoding and machine of an executable ("" when it is
// not an ELF file), enough to tell whether it was built for this program's
// target or for the host.
std::string ElfMachine(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char header[20] = {};
  if (!in.read(reinterpret_cast<char*>(header), sizeof header)) return "";
  if (header[0] != 0x7f || header[1] != 'E' || header[2] != 'L' || header[3] != 'F') return "";
  // e_ident[EI_CLASS], e_ident[EI_DATA] and the two bytes of e_machine.
  return std::string{static_cast<char>(header[4]), static_cast<char>(header[5]),
                     static_cast<char>(header[18]), static_cast<char>(header[19])};
}

// qemu-user reports a guest killed by a signal with a line of its own on the
// guest's standard error; that line is the emulator's, not the program's.
void DropEmulatorSignalLine(std::string& err) {
  static const std::string kPrefix = "qemu: uncaught target signal ";
  if (err.empty() || err.back() != '\n') return;
  const size_t line = err.rfind('\n', err.size() - 2);
  const size_t start = line == std::string::npos ? 0 : line + 1;
  if (err.compare(start, kPrefix.size(), kPrefix) == 0) err.erase(start);
}

}  // namespace

std::vector<std::string> EmulatorCommand() {
#ifdef QVEXFAT_EMULATOR
  // A '|'-separated command line, e.g. "qemu-aarch64|-L|/usr/aarch64-linux-gnu".
  std::vector<std::string> command;
  std::string words = QVEXFAT_EMULATOR;
  size_t start = 0;
  for (size_t bar; (bar = words.find('|', start)) != std::string::npos; start = bar + 1)
    command.push_back(words.substr(start, bar - start));
  command.push_back(words.substr(start));
  return command;
#else
  return {};
#endif
}

std::vector<std::string> TargetCommand(const std::vector<std::string>& argv) {
  const std::vector<std::string> emulator = EmulatorCommand();
  if (emulator.empty() || argv.empty() || argv[0].find('/') == std::string::npos) return argv;
  // Under qemu-user /proc/self/exe is this test program, built for the target.
  static const std::string target = ElfMachine("/proc/self/exe");
  if (target.empty() || ElfMachine(argv[0]) != target) return argv;
  std::vector<std::string> command = emulator;
  command.insert(command.end(), argv.begin(), argv.end());
  return command;
}

ProcessResult RunProcess(const std::vector<std::string>& program_argv,
                         const ProcessOptions& options) {
  if (program_argv.empty()) throw std::runtime_error("RunProcess: empty argv");
  const std::vector<std::string> argv = TargetCommand(program_argv);
  const bool emulated = argv.size() != program_argv.size();
  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) != 0 || pipe2(out_pipe, O_CLOEXEC) != 0 ||
      pipe2(err_pipe, O_CLOEXEC) != 0)
    throw std::runtime_error("RunProcess: pipe failed");

  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("RunProcess: fork failed");
  if (pid == 0) {
    dup2(in_pipe[0], 0);
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    for (const auto& e : options.env) putenv(const_cast<char*>(e.c_str()));
    if (options.user) {
      if (setgroups(0, nullptr) != 0 || setgid(*options.user) != 0 || setuid(*options.user) != 0)
        _exit(126);
    }
    execvp(args[0], args.data());
    _exit(127);
  }
  close(in_pipe[0]);
  close(out_pipe[1]);
  close(err_pipe[1]);
  int in_fd = in_pipe[1], out_fd = out_pipe[0], err_fd = err_pipe[0];

  ProcessResult result;
  result.pid = pid;
  size_t input_done = 0;
  if (options.input.empty()) CloseIfOpen(in_fd);
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(options.timeout_seconds);
  bool killed = false;
  while (out_fd >= 0 || err_fd >= 0) {
    pollfd fds[3];
    int count = 0;
    auto add = [&](int fd, short events) {
      if (fd >= 0) fds[count++] = pollfd{fd, events, 0};
    };
    add(out_fd, POLLIN);
    add(err_fd, POLLIN);
    add(in_fd, POLLOUT);
    int ready = poll(fds, count, 1000);
    if (ready < 0 && errno != EINTR) break;
    if (!killed && std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      killed = true;
    }
    for (int i = 0; i < count; ++i) {
      if (fds[i].revents == 0) continue;
      if (fds[i].fd == in_fd) {
        ssize_t n = write(in_fd, options.input.data() + input_done,
                          options.input.size() - input_done);
        if (n > 0) input_done += static_cast<size_t>(n);
        if (n < 0 || input_done == options.input.size()) CloseIfOpen(in_fd);
        continue;
      }
      char buffer[65536];
      ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      std::string& sink = fds[i].fd == out_fd ? result.out : result.err;
      if (n > 0) {
        sink.append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        if (fds[i].fd == out_fd)
          CloseIfOpen(out_fd);
        else
          CloseIfOpen(err_fd);
      }
    }
  }
  CloseIfOpen(in_fd);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) {
    result.exit_status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
    if (emulated) DropEmulatorSignalLine(result.err);
  }
  return result;
}

const std::string& ToolPath() {
  static const std::string path = QVEXFAT_BINARY;
  return path;
}

ProcessResult RunTool(const std::vector<std::string>& args, const ProcessOptions& options) {
  std::vector<std::string> argv{ToolPath()};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProcess(argv, options);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

void RunShell(const std::string& command) {
  ProcessResult r = RunProcess({"/bin/sh", "-c", command});
  if (r.exit_status != 0)
    throw std::runtime_error("command failed (" + std::to_string(r.exit_status) + "): " + command +
                             "\n" + r.out + r.err);
}

}  // namespace testsupport
