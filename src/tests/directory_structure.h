#pragma once

#include <string>

// "directory": 1000 empty files with names of random length are created in
// one directory, deleted, and 1000 new ones created in the freed entries,
// each checked by lstat64. The second 1000 stay in `directory`.
void DirectoryStructureTest(const std::string& directory);
