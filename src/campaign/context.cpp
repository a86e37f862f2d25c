#include "campaign/context.h"

std::string VolumeLine(uint64_t bytes, uint64_t cluster_bytes, const std::string& device) {
  return "volume: " + FormatSize(bytes) + " with " + FormatSize(cluster_bytes) + " clusters, on " + device;
}

std::string LastWord(const std::vector<std::string>& lines) {
  for (auto line = lines.rbegin(); line != lines.rend(); ++line)
    if (!line->empty() && *line != "Test failure") return *line;
  return "(nothing printed)";
}
