#pragma once

#include <cstdint>
#include <string>

// The alphabet that test file names are cut from: the 26 lower-case and the
// 26 upper-case letters, five times over (260 characters).
extern const std::string NamePattern;

// A file name of `length` characters of NamePattern followed by the decimal
// `index`. A length of 0 draws one from random() (0 to 255). The whole name
// never exceeds 255 characters, the exFAT limit; names with different
// indexes never collide, as the prefix holds letters only.
std::string MakeFileName(int32_t index, uint32_t length);
