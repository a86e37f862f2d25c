#pragma once

#include <sys/types.h>

#include <string>

// mkdir(path, mode); throws ErrnoException(errno, path) on failure, also
// when the directory already exists.
void MakeDirectory(const std::string& path, mode_t mode);
