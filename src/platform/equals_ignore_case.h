#pragma once

#include <string_view>

// Whole-string comparison that folds only the ASCII letters A-Z to lower
// case (no locale). Every name given on the command line is matched so.
bool EqualsIgnoreCase(std::string_view a, std::string_view b);
