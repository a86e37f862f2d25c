#include "cli/fill_directory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "platform/log_message.h"
#include "platform/unique_fd.h"

namespace {

constexpr int kFiles = 500;

// The letters leave out "o" on purpose: the names have always been so.
constexpr const char* kNameFormat =
    "{}longfiller"
    "abcdefghijklmnpqrstuvwxyzabcdefghijklmnpqrstuvwxyzabcdefghijklmnpqrstuvwxyz"
    "abcdefghijklmnpqrstuvwxyzabcdefghijklmnpqrstuvwxyzabcdefghijklmnpqrstuvwxyz.{}";

}  // namespace

int FillDirectory(const std::string& volume) {
  for (int i = 0; i < kFiles; ++i) {
    const std::string name = fmt::format(kNameFormat, volume, i);
    UniqueFd fd(open64(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0777));
    if (!fd.IsOpen()) {
      LogMessage("Failed to open %s\n\n", name.c_str());
      return 1;
    }
  }
  return 0;
}
