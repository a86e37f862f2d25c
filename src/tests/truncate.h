#pragma once

#include <string>

// "truncate": a file cut to half its length and extended again must read
// back its old first half and zeros in the regained half, at 23 sizes from
// 2 bytes to 8 MiB; shrinking, appending and writing past the end must set
// the size they should. Works on "<directory>truncfile", which stays.
void TruncateTest(const std::string& directory);
