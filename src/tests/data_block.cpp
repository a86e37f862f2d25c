#include "tests/data_block.h"

#include <cstdlib>
#include <cstring>

std::vector<unsigned char> MakeDataBlock(uint32_t seed, uint64_t length) {
  // random_data must start zeroed: initstate_r writes through a previous state.
  random_data generator{};
  char state[64]{};
  initstate_r(seed, state, sizeof state, &generator);
  srandom_r(seed, &generator);

  std::vector<unsigned char> block((length + 3) & ~uint64_t{3});
  for (size_t offset = 0; offset < block.size(); offset += sizeof(int32_t)) {
    int32_t word = 0;
    random_r(&generator, &word);
    memcpy(&block[offset], &word, sizeof word);  // the machine's byte order
  }
  return block;
}
