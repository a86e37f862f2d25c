#pragma once

#include <string>
#include <vector>

#include "campaign/report/reporter.h"

// The results as Markdown: the stack they are about (`stack`, "kernel:
// 6.1.0-56-arm64" and the like, a list item each), then a line a row: one
// table for the damage rows (caught?, mount, read, write, repair, the
// kernel's log in short), one for the volume rows. A table is left out
// when none of its rows ran.
std::string MarkdownTables(const std::vector<std::string>& stack, const std::vector<RowRecord>& rows);
