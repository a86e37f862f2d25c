#pragma once

// Seeds rand() once per run from 32 bits of /dev/urandom mixed with the
// clock. Throws ErrnoException when /dev/urandom cannot be opened or read.
void SeedRandom();
