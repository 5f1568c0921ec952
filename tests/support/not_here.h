// For what a test does that the system it runs on has no form of.
#pragma once

#include <string>

// Whether the layer answers, and not Windows. It refuses what nobody needs where Windows has a use for it, and has
// settings of its own.
bool OnTheLayer();
// Ends the test as skipped where Windows answers, which has no form of this.
void NeedsTheLayer(const char* forWhat);

// Windows only. Ends the test as skipped. In a process that a test started it ends that process with a code of its own,
// and the test that hears of it.
[[noreturn]] void NotHere(const std::string& what);
