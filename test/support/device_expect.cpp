#include "device_expect.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>

#include "exfat_image.h"
#include "process.h"

namespace testsupport {

std::string Format(const char* format, ...) {
  char buffer[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

std::string Hex(uint64_t value) { return Format("%llx", static_cast<unsigned long long>(value)); }

std::string AnnouncementLine(const std::string& path, uint64_t bytes) {
  const unsigned long long sectors = bytes / 512;
  return Format("Device %s opened, %llu sectors in size (%llu MBytes)", path.c_str(), sectors,
                sectors >> 11);
}

std::vector<std::string> GeometryLines(const ExfatGeometry& g) {
  return {
      "BootSector info (in hex):",
      Format("\tClusterHeapOffset    %#08llx", static_cast<unsigned long long>(g.cluster_heap_offset)),
      Format("\tClusterCount         %#08llx", static_cast<unsigned long long>(g.cluster_count)),
      Format("\tBytesPerSector       %#04x", 1u << (g.bytes_per_sector_shift & 31)),
      Format("\tSectorsPerCluster    %#08x", 1u << (g.sectors_per_cluster_shift & 31)),
      Format("\tNumberOfFats         %#01x", g.number_of_fats),
      Format("\tFatOffset            %#08llx", static_cast<unsigned long long>(g.fat_offset)),
      Format("\tFatLength            %#08llx", static_cast<unsigned long long>(g.fat_length)),
      Format("\tRootDirectoryStart   %#08llx", static_cast<unsigned long long>(g.root_cluster)),
  };
}

std::vector<std::string> Preamble(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) throw std::runtime_error("cannot stat " + path);
  ExfatLayout layout(path);
  std::vector<std::string> lines{AnnouncementLine(path, static_cast<uint64_t>(st.st_size))};
  for (std::string& line : GeometryLines(layout.Geometry())) lines.push_back(line);
  return lines;
}

std::string InvalidClusterLine(uint64_t cluster, const ExfatGeometry& g) {
  return Format("Invalid cluster: %llx (%llx total)", static_cast<unsigned long long>(cluster),
                static_cast<unsigned long long>(g.cluster_count + 2));
}

void ExpectToolRun(const std::vector<std::string>& args, int status, const std::string& err,
                   const std::string& image, const std::vector<uint8_t>& after) {
  std::string command;
  for (const std::string& arg : args) command += " " + arg;
  SCOPED_TRACE("qvexfat-test" + command);
  ProcessResult r = RunTool(args);
  EXPECT_EQ(r.exit_status, status);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, err);
  EXPECT_EQ(DifferingOffsets(after, ReadFileBytes(image)), std::vector<uint64_t>{});
}

std::vector<uint64_t> DifferingOffsets(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  if (a.size() != b.size()) throw std::runtime_error("images differ in size");
  std::vector<uint64_t> offsets;
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i] != b[i]) offsets.push_back(i);
  return offsets;
}

void WriteNewFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace testsupport
