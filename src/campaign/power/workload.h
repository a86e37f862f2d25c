#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "campaign/trial/known_tree.h"

// The power-cut phase's workload: steps over a volume that holds the known
// tree, each ending in a sync and then a mark in the write log, so that
// every mark is a point where the driver has promised something. What it
// promises is what the steps record: after fsync of a file, its data, size
// and entry; after fsync of a directory, its entries.
class Workload {
 public:
  // The tree's files and the new files' contents follow from `seed`.
  Workload(const KnownTree& tree, uint32_t seed);

  // The marks, in the order the steps set them; the last one is set once
  // the volume is unmounted, when everything written is on the medium.
  const std::vector<std::string>& Marks() const { return m_marks; }

  // The files that must be there, each with its bytes, at a cut right after
  // `mark`; with `before` set, at a cut anywhere after the mark before it
  // and before this one, where the step under way may have changed what
  // it touches, but nothing else.
  std::vector<TreeFile> DurableAt(const std::string& mark, bool before = false) const;

  // Runs the steps on the volume mounted at `root`, calling `mark` with
  // each mark's label once its step has synced. Throws ErrnoException
  // naming the call and path that failed.
  void Run(const std::string& root, const std::function<void(const std::string&)>& mark) const;

  // The label of the mark set after unmounting.
  static constexpr const char* kUnmounted = "unmounted";

 private:
  // One step: what it does, and what it leaves durable once its mark is set.
  struct Step {
    std::string mark;  // "": not synced, no mark of its own
    std::function<void(const std::string& root)> run;
    std::vector<TreeFile> made;     // new or changed files, by label
    std::vector<std::string> gone;  // labels of files no longer there
  };

  std::vector<Step> m_steps;
  std::vector<TreeFile> m_tree;
  std::vector<std::string> m_marks;
  // By mark: the durable files once it is set, and the labels of the files
  // the steps since the mark before it touched.
  std::vector<std::vector<TreeFile>> m_durable;
  std::vector<std::vector<std::string>> m_touched;
};
