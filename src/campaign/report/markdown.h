#pragma once

#include <string>
#include <vector>

#include "campaign/report/reporter.h"

// The results as Markdown, a line a row: one table for the damage rows
// (caught?, mount, read, write, repair, the kernel's log in short), one for
// the volume rows. A table is left out when none of its rows ran.
std::string MarkdownTables(const std::vector<RowRecord>& rows);
