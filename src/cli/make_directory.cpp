#include "cli/make_directory.h"

#include <sys/stat.h>

#include <cerrno>

#include "platform/errno_exception.h"

void MakeDirectory(const std::string& path, mode_t mode) {
  if (mkdir(path.c_str(), mode) != 0) throw ErrnoException(errno, path);
}
