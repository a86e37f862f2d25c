#include "tests/recreate_directory.h"

#include <boost/filesystem/operations.hpp>

void RecreateDirectory(const std::string& path) {
  boost::filesystem::remove_all(path);
  boost::filesystem::create_directory(path);
}
