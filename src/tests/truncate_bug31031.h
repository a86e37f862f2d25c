#pragma once

#include <string>

// "truncatebug31031": a file grown by appending and then shrunk twice must
// keep exactly the data below its new end, and a file written beside it
// must not be disturbed by the clusters the truncations free. All sizes are
// whole clusters. Both files stay in `directory`.
void TruncateBug31031Test(const std::string& directory);
