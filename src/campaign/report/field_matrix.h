#pragma once

#include <string>
#include <vector>

#include "campaign/report/reporter.h"

// The field rows as Markdown: a legend, then for each structure a matrix,
// field and instance down, verb across, a short code a cell (what the
// checker and the driver made of the change, or a hazard), then a list of
// the hazards and of the rows where the checker and the driver disagree.
// "" when no field row ran.
std::string FieldMatrices(const std::vector<RowRecord>& rows);
