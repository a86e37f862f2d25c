#include "mounted_volume.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "process.h"

namespace testsupport {
namespace {

bool OnPath(const std::string& program) {
  return RunProcess({"/bin/sh", "-c", "command -v " + program}).exit_status == 0;
}

std::string Trim(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

// Runs `argv` until it succeeds or about five seconds have passed (a FUSE
// daemon may still hold the mount or the device for a moment).
ProcessResult Retry(const std::vector<std::string>& argv) {
  ProcessResult r;
  for (int attempt = 0; attempt < 50; ++attempt) {
    r = RunProcess(argv);
    if (r.exit_status == 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return r;
}

}  // namespace

std::optional<std::string> MountUnavailableReason() {
  if (geteuid() != 0) return "not running as root (loop devices and mounts need root)";
  if (access("/dev/fuse", R_OK | W_OK) != 0) return "/dev/fuse is missing or not usable";
  if (access("/dev/loop-control", R_OK | W_OK) != 0) return "/dev/loop-control is missing";
  for (const char* program : {"losetup", "mount.exfat-fuse", "umount"})
    if (!OnPath(program)) return std::string(program) + " is not installed";
  return std::nullopt;
}

bool InCi() {
  const char* ci = getenv("CI");
  return ci != nullptr && std::string(ci) == "true";
}

MountedVolume::MountedVolume(const std::string& image, const std::string& mount_point,
                             bool read_only)
    : m_image(image), m_mount_point(mount_point) {
  std::filesystem::create_directories(m_mount_point);
  ProcessResult attach = RunProcess({"losetup", "-f", "--show", m_image});
  if (attach.exit_status != 0) throw std::runtime_error("losetup failed: " + attach.err);
  m_loop = Trim(attach.out);
  std::vector<std::string> mount{"mount.exfat-fuse"};
  if (read_only) {
    mount.push_back("-o");
    mount.push_back("ro");
  }
  mount.push_back(m_loop);
  mount.push_back(m_mount_point);
  ProcessResult mounted = RunProcess(mount);
  if (mounted.exit_status != 0) {
    RunProcess({"losetup", "-d", m_loop});
    throw std::runtime_error("mount.exfat-fuse failed: " + mounted.out + mounted.err);
  }
  m_mounted = true;
}

MountedVolume::~MountedVolume() {
  try {
    Unmount();
  } catch (const std::exception& e) {
    ADD_FAILURE() << e.what();
    RunProcess({"umount", "-l", m_mount_point});
    RunProcess({"losetup", "-d", m_loop});
  }
}

void MountedVolume::Unmount() {
  if (m_mounted) {
    ProcessResult r = Retry({"umount", m_mount_point});
    if (r.exit_status != 0) throw std::runtime_error("umount " + m_mount_point + ": " + r.err);
    m_mounted = false;
  }
  if (!m_loop.empty()) {
    // The FUSE daemon lets go of the loop device shortly after the unmount.
    ProcessResult r = Retry({"losetup", "-d", m_loop});
    if (r.exit_status != 0) throw std::runtime_error("losetup -d " + m_loop + ": " + r.err);
    for (int attempt = 0; attempt < 50; ++attempt) {
      if (Trim(RunProcess({"losetup", "-j", m_image}).out).empty()) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    m_loop.clear();
  }
}

}  // namespace testsupport
