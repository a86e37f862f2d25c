#pragma once

// Expected standard-error text of device-mode runs, worked out from an
// image's own bytes (through ExfatLayout), and comparisons of whole images.

#include <cstdint>
#include <string>
#include <vector>

#include "exfat_layout.h"

namespace testsupport {

// printf into a std::string.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// "Device <path> opened, <sectors> sectors in size (<MBytes> MBytes)" for an
// image of `bytes` bytes (whole 512-byte sectors only).
std::string AnnouncementLine(const std::string& path, uint64_t bytes);

// The nine lines that describe a volume's geometry, "BootSector info..."
// first, without line ends.
std::vector<std::string> GeometryLines(const ExfatGeometry& g);

// The announcement and the geometry of the image at `path`: what every run
// that gets past the boot sector prints first.
std::vector<std::string> Preamble(const std::string& path);

// "Invalid cluster: <c> (<ClusterCount + 2> total)".
std::string InvalidClusterLine(uint64_t cluster, const ExfatGeometry& g);

// Offsets at which two images differ (sizes must match).
std::vector<uint64_t> DifferingOffsets(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b);

// Creates (or replaces) a file holding exactly `bytes`.
void WriteNewFile(const std::string& path, const std::vector<uint8_t>& bytes);

// `lines` followed by `more`.
std::vector<std::string> Concat(std::vector<std::string> lines, const std::vector<std::string>& more);

}  // namespace testsupport
