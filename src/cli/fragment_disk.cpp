#include "cli/fragment_disk.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "cli/make_directory.h"
#include "platform/errno_exception.h"
#include "platform/log_message.h"
#include "platform/unique_fd.h"

namespace {

constexpr int kDirectories = 20;
constexpr int kLastLoop = 19;
constexpr mode_t kMode = 0777;

void MakeSubdirectories(const std::string& root) {
  for (int d = 0; d < kDirectories; ++d) MakeDirectory(fmt::format("{}/dir{}", root, d), kMode);
}

// One size per round, from 1 MiB to 17 MiB: the 31-bit random number
// shifted left by 24, divided by RAND_MAX, in 64-bit arithmetic.
int64_t DrawRoundSize() {
  return (static_cast<int64_t>(rand()) * 16777216) / 2147483647 + 1048576;
}

}  // namespace

int FragmentDisk(const std::string& volume) {
  std::string root = volume;
  MakeSubdirectories(root);
  int loop = 0;
  uint32_t filler = 0;
  LogMessage("Path is %s\n", root.c_str());
  for (;;) {
    // Fill rounds until an allocation fails: every file of a round gets the
    // same size; the file that failed stays where it is.
    int error = 0;
    while (error == 0) {
      const int64_t size = DrawRoundSize();
      for (int d = 0; d < kDirectories; ++d) {
        const std::string name = fmt::format("{}/dir{}/filler.{}", root, d, filler);
        UniqueFd fd(open64(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode));
        if (!fd.IsOpen()) throw ErrnoException(errno, name);
        error = posix_fallocate64(fd.Get(), 0, size);
        if (error != 0) {
          errno = error;
          perror("Failed to fallocate");
          break;
        }
      }
      filler += 1;
    }
    if (loop == kLastLoop) return 0;

    // Free one first-level directory's share; its refill lands in the holes.
    root = fmt::format("{}/dir{}", volume, loop);
    std::filesystem::remove_all(root);
    MakeDirectory(root, kMode);
    MakeSubdirectories(root);
    loop += 1;
    LogMessage("Finished loop %d\n\n", loop);
    LogMessage("Path is %s\n", root.c_str());
  }
}
