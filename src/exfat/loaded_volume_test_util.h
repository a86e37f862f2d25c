#pragma once

// For the model's own unit tests: an mkfs.exfat image in a scratch
// directory, opened and modelled the way device mode does it. Expectations
// come from testsupport::ExfatLayout, which reads the image independently.

#include <gtest/gtest.h>

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/fat.h"
#include "exfat_image.h"
#include "exfat_layout.h"
#include "process.h"
#include "scratch.h"

namespace exfat_test {

// A formatted image, ready for a test to damage before it is modelled.
struct TestImage {
  testsupport::ScratchDir dir;
  std::string path = dir / "volume.img";
  TestImage(uint64_t bytes, uint32_t cluster_bytes) { testsupport::MakeExfatImage(path, bytes, cluster_bytes); }
};

// The device, boot sector and FAT model of an image. The lines printed
// while modelling (the geometry) are kept in `setup_output`.
struct LoadedVolume {
  DeviceHandle device;
  std::unique_ptr<BootSector> boot;
  std::unique_ptr<Fat> fat;
  std::string setup_output;

  explicit LoadedVolume(const std::string& path) {
    testing::internal::CaptureStderr();
    try {
      device.Open(path, DeviceHandle::kDeviceModeSectorSize, false);
      std::vector<uint8_t> raw(BootSector::kSize);
      device.ReadSectors(1, 0, raw);
      boot = ParseBootSector(std::span<const uint8_t, BootSector::kSize>(raw.data(), raw.size()));
      if (boot) fat = CreateFat(device, *boot);
    } catch (...) {
      setup_output = testing::internal::GetCapturedStderr();
      throw;
    }
    setup_output = testing::internal::GetCapturedStderr();
  }
};

// Runs `action` and returns what it printed to standard error.
template <typename Action>
std::string StderrOf(Action&& action) {
  testing::internal::CaptureStderr();
  action();
  return testing::internal::GetCapturedStderr();
}

inline std::string InvalidCluster(uint64_t cluster, uint64_t cluster_count) {
  char line[96];
  snprintf(line, sizeof line, "Invalid cluster: %llx (%llx total)\n", static_cast<unsigned long long>(cluster),
           static_cast<unsigned long long>(cluster_count + 2));
  return line;
}

}  // namespace exfat_test
