// Preloaded into the tool by cases that give "rand": srand() and rand()
// replace glibc's, and rand() returns the numbers listed in QVEXFAT_RAND,
// in order, so that every random default is known. The tool must seed once
// and before its first draw; anything else is reported on standard error,
// where the case's transcript shows it.
//
// Without QVEXFAT_RAND but with QVEXFAT_SEED, the tool draws as glibc's
// rand() does (from random()), seeded with that number instead of the
// tool's own seed: runs that draw more numbers than a case could list (the
// volume tests' file sizes) come out the same each time.
#include <cstdio>
#include <cstdlib>

namespace {
int seeds = 0;
const char* next_number = nullptr;

const char* FixedSeed() { return getenv("QVEXFAT_RAND") ? nullptr : getenv("QVEXFAT_SEED"); }
}  // namespace

extern "C" void srand(unsigned int) {
  if (++seeds > 1) fputs("fixed_rand: srand() called again\n", stderr);
  if (const char* seed = FixedSeed()) srandom(static_cast<unsigned>(strtoul(seed, nullptr, 0)));
}

extern "C" int rand() {
  if (seeds == 0) fputs("fixed_rand: rand() before srand()\n", stderr);
  if (FixedSeed()) return static_cast<int>(random());
  if (next_number == nullptr) next_number = getenv("QVEXFAT_RAND");
  char* end = nullptr;
  const long value = next_number ? strtol(next_number, &end, 0) : 0;
  if (next_number == nullptr || end == next_number) {
    fputs("fixed_rand: more rand() calls than QVEXFAT_RAND has numbers\n", stderr);
    abort();
  }
  next_number = end;
  return static_cast<int>(value);
}
