#include "fault_fs.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "mounted_volume.h"
#include "process.h"

#ifndef FAULTFS_BINARY
#error "FAULTFS_BINARY must name the built faultfs"
#endif

namespace testsupport {
namespace {

constexpr long kFuseSuperMagic = 0x65735546;

bool IsFuseMount(const std::string& path) {
  struct statfs info {};
  return statfs(path.c_str(), &info) == 0 && info.f_type == kFuseSuperMagic;
}

std::string ReadLog(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Waits up to `seconds` for the child to end; true when it did.
bool WaitForExit(pid_t pid, int seconds, int* status) {
  for (int attempt = 0; attempt < seconds * 20; ++attempt) {
    if (waitpid(pid, status, WNOHANG) == pid) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

}  // namespace

std::optional<std::string> FuseUnavailableReason() {
  if (geteuid() != 0) return "not running as root (faultfs needs /dev/fuse and mounts)";
  if (access("/dev/fuse", R_OK | W_OK) != 0) return "/dev/fuse is missing or not usable";
  if (RunProcess({"/bin/sh", "-c", "command -v fusermount3"}).exit_status != 0)
    return "fusermount3 is not installed";
  return std::nullopt;
}

FaultFs::FaultFs(const std::string& backing, const std::string& mount_point,
                 const FaultFsOptions& options)
    : m_backing(backing), m_mount_point(mount_point) {
  std::filesystem::create_directories(m_backing);
  std::filesystem::create_directories(m_mount_point);
  std::vector<std::string> argv{FAULTFS_BINARY, "-f", "-s"};
  if (!options.fault.empty()) argv.push_back("--fault=" + options.fault);
  argv.push_back("--size=" + std::to_string(options.size));
  argv.push_back("--cluster=" + std::to_string(options.cluster));
  if (options.lose_after) argv.push_back("--lose-after=" + std::to_string(*options.lose_after));
  argv.push_back(m_backing);
  argv.push_back(m_mount_point);
  argv = TargetCommand(argv);  // through the emulator when the build is for another machine
  const std::string log = m_mount_point + ".log";

  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  m_pid = fork();
  if (m_pid < 0) throw std::runtime_error("fork failed");
  if (m_pid == 0) {
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
      dup2(fd, 1);
      dup2(fd, 2);
    }
    int null = open("/dev/null", O_RDONLY);
    if (null >= 0) dup2(null, 0);
    execv(args[0], args.data());
    _exit(127);
  }
  for (int attempt = 0; attempt < 200; ++attempt) {
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
      m_pid = -1;
      throw std::runtime_error("faultfs ended before mounting: " + ReadLog(log));
    }
    if (IsFuseMount(m_mount_point)) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  kill(m_pid, SIGKILL);
  waitpid(m_pid, nullptr, 0);
  m_pid = -1;
  throw std::runtime_error("faultfs did not mount within 10 s: " + ReadLog(log));
}

FaultFs::~FaultFs() {
  try {
    Unmount();
  } catch (const std::exception& e) {
    ADD_FAILURE() << e.what();
    RunProcess({"umount", "-l", m_mount_point});
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
  }
}

void FaultFs::Unmount() {
  if (m_pid <= 0) return;
  ProcessResult r;
  for (int attempt = 0; attempt < 50 && IsFuseMount(m_mount_point); ++attempt) {
    r = RunProcess({"fusermount3", "-u", m_mount_point});
    if (r.exit_status == 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (IsFuseMount(m_mount_point))
    throw std::runtime_error("fusermount3 -u " + m_mount_point + ": " + r.err);
  int status = 0;
  if (!WaitForExit(m_pid, 10, &status)) {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
    throw std::runtime_error("faultfs did not end after the unmount");
  }
  m_pid = -1;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw std::runtime_error("faultfs ended badly: " + ReadLog(m_mount_point + ".log"));
}

}  // namespace testsupport
