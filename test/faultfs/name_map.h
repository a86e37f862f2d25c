#pragma once

#include <string>
#include <unordered_map>

namespace faultfs {

// The backing directory lives on a Linux filesystem that stores at most 255
// bytes per name. Longer names (which only some faults let through) are kept
// under a short stand-in name and translated back when a directory is read.
class NameMap {
 public:
  // The backing name of one path component.
  std::string ToBacking(const std::string& name);
  // The name to show for one backing directory entry.
  std::string FromBacking(const std::string& backing) const;

 private:
  std::unordered_map<std::string, std::string> m_long_names;  // stand-in -> name
};

}  // namespace faultfs
