#pragma once

#include <cstdint>
#include <vector>

// The block of pseudo-random bytes that a test file repeats: `length` bytes
// rounded up to whole 4-byte words, each word one draw of a private
// random_r generator seeded with `seed`. The same seed gives the same block
// on every run and machine of one byte order, so a file's contents can be
// checked again from its seed alone.
std::vector<unsigned char> MakeDataBlock(uint32_t seed, uint64_t length);
