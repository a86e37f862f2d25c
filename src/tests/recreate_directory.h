#pragma once

#include <string>

// Removes `path` with everything below it (absence is no error) and creates
// it again, empty. Failures throw boost::filesystem::filesystem_error, which
// names the operation and the path.
void RecreateDirectory(const std::string& path);
