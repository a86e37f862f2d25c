#pragma once

#include <string>

// "rename": renames to a free short name and back, to a longer name and
// back, onto an existing file and back must succeed; renames to and from a
// 260-character name must be refused. "original_file" stays in `directory`.
void RenameTest(const std::string& directory);
