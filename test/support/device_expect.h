#pragma once

// Expected standard-error text of device-mode runs, worked out from an
// image's own bytes (through ExfatLayout), and comparisons of whole images.

#include <cstdint>
#include <string>
#include <vector>

#include "exfat_layout.h"
#include "line_lists.h"

namespace testsupport {

// printf into a std::string.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A number in lower-case hexadecimal without a prefix, as the tool prints
// clusters and values.
std::string Hex(uint64_t value);

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

// Runs the built tool with `args` and expects exit `status`, nothing on
// standard output, exactly `err` on standard error, and the file `image`
// afterwards equal to `after` byte for byte (the differing offsets are
// reported).
void ExpectToolRun(const std::vector<std::string>& args, int status, const std::string& err,
                   const std::string& image, const std::vector<uint8_t>& after);

// Offsets at which two images differ (sizes must match).
std::vector<uint64_t> DifferingOffsets(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b);

// Creates (or replaces) a file holding exactly `bytes`.
void WriteNewFile(const std::string& path, const std::vector<uint8_t>& bytes);

}  // namespace testsupport
