#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "campaign/fields/field_table.h"

// The cluster numbers `self` and `crosslink` write: the cluster the field's
// structure lies in, and another file's first cluster.
struct ClusterTargets {
  uint64_t self = 0;
  uint64_t crosslink = 0;
};

// The field's bytes (little-endian) as the verb leaves them. Bits are
// counted in the field's value: firstbit flips bit 0, middlebit bit
// 8 * width / 2, lastbit the top bit; add and sub wrap. A flag (`mask`
// other than 0xFF) is cleared by zeroes and set by ones.
std::vector<uint8_t> Fuzzed(std::span<const uint8_t> bytes, Verb verb, uint8_t mask, const ClusterTargets& targets);

// The main boot region's checksum over its first eleven sectors, the
// VolumeFlags and PercentInUse bytes left out.
uint32_t BootRegionChecksum(std::span<const uint8_t> eleven_sectors);
