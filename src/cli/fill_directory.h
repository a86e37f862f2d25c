#pragma once

#include <string>

// "filldir": creates 500 empty files with names of 162 to 164 characters
// directly after `volume` (no "/" is added: pass the volume with a trailing
// "/"), so that one directory grows to many entries. Returns 0, or 1 after
// printing "Failed to open <name>" when a file cannot be created.
int FillDirectory(const std::string& volume);
