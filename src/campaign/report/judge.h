#pragma once

#include <string>
#include <vector>

#include "campaign/trial/observation.h"

// What the campaign says of a step or a row. Not ok is a hazard, or a
// step the campaign could not carry out (ERROR) or that did not end in
// time (TIMEOUT); what the checker misses or the driver refuses is
// knowledge, and ok.
struct Verdict {
  bool ok = true;
  std::string directive;             // "SKIP", "TIMEOUT", "ERROR", or none
  std::vector<std::string> reasons;  // why not ok
};

// The one place where observations become verdicts.
Verdict JudgeStep(const StepObservation& step);

// A row is ok when every step is; SKIP when its first step was skipped
// (its damage had nothing to hit), ERROR or TIMEOUT when a step was.
Verdict JudgeRow(const std::vector<Verdict>& steps);
// The field rows of a structure together: ok when every row is, SKIP when
// every row was skipped.
Verdict JudgeGroup(const std::vector<Verdict>& rows);
