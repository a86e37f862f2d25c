// The kinds that damage per-cluster bookkeeping: FAT entries and bitmap bits.
#include <cstdlib>

#include "corrupt/corruption_description.h"
#include "corrupt/corruption_kinds.h"
#include "exfat/boot_sector.h"
#include "exfat/fat.h"
#include "platform/log_message.h"

namespace {

constexpr uint64_t kRandMax = 0x7fffffff;
constexpr uint64_t kMaxDefaultRange = 1000;

// The defaults shared by both kinds, drawn in this order: a start cluster
// within the model's range, a range up to 1000, then the value.
CorruptionParameters DrawDefaults(const BootSector& boot_sector, uint64_t value_mask) {
  CorruptionParameters params;
  params.start = (boot_sector.ClusterCount() + 2) * static_cast<uint64_t>(rand()) / kRandMax;
  params.range = static_cast<uint64_t>(rand()) * kMaxDefaultRange / kRandMax;
  params.value = static_cast<uint64_t>(rand()) & value_mask;
  return params;
}

}  // namespace

void CorruptFat(CorruptionTarget& target, const std::vector<std::string>& tokens) {
  CorruptionParameters params = DrawDefaults(target.boot_sector, ~uint64_t{0});
  ReadCorruptionParameters(tokens, params);
  LogMessage("Corrupt FAT from %llx for %llx clusters, to value %lx\n", static_cast<unsigned long long>(params.start),
             static_cast<unsigned long long>(params.range), static_cast<unsigned long>(params.value));
  for (uint64_t i = 0; i < params.range; ++i)
    target.fat.WriteFatEntry(params.start + i, static_cast<uint32_t>(params.value));
}

void CorruptBitmap(CorruptionTarget& target, const std::vector<std::string>& tokens) {
  CorruptionParameters params = DrawDefaults(target.boot_sector, 1);
  ReadCorruptionParameters(tokens, params);
  LogMessage("Corrupt BITMAP from %llx for %llx clusters, to value %lx\n",
             static_cast<unsigned long long>(params.start), static_cast<unsigned long long>(params.range),
             static_cast<unsigned long>(params.value));
  target.fat.CopyBitmapToCheck();
  // An out-of-range cluster throws here, before anything is written.
  for (uint64_t i = 0; i < params.range; ++i) target.fat.MarkChecked(params.start + i, params.value != 0);
  target.fat.UpdateAllocationBitmap();
}
