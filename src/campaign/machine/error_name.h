#pragma once

#include <string.h>

#include <string>

// An errno value by its name, as reports give it: "EIO", "ENOSPC"; the
// number where the C library knows no name.
inline std::string ErrorName(int error) {
  const char* name = strerrorname_np(error);
  return name ? name : std::to_string(error);
}
