#pragma once

#include <string>

// A volume test: given its working directory (ending in "/"), it returns on
// success and throws (anything) on failure.
using VolumeTest = void (*)(const std::string& directory);

// Runs `test` in "<volume>/runtests/", which is emptied first. Anything
// thrown, by the clean-up or by the test, prints "Test failure" and gives
// false; nothing escapes. What the test leaves stays until the next run.
bool RunTest(const std::string& volume, VolumeTest test);
