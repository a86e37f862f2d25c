#pragma once

#include <string>

// "filename": a 255-byte name must be accepted; a 256-byte name and names of
// the characters ? | * : < > must be refused. Accepted test files are
// removed at once, so none stays in `directory`.
void FilenameTest(const std::string& directory);
