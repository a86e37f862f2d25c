#pragma once

#include <string>

namespace testsupport {

// A fresh, empty directory for one test under the build tree's scratch area
// ("<build>/test-scratch/<suite>.<test>.<pid>"). Removed when the object
// goes away unless the test failed (then it is kept for inspection until the
// next run's clean-up).
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& Path() const { return m_path; }
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

// Root of all scratch directories; the CTest clean-up fixture empties it.
const std::string& ScratchRoot();

}  // namespace testsupport
