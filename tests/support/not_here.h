// For what a test does that the system it runs on has no form of.
#pragma once

#include <string>

// Whether the layer answers, and not Windows. It refuses what nobody needs where Windows has a use for it, and has
// settings of its own.
bool OnTheLayer();
// Ends the test as skipped where Windows answers, which has no form of this.
void NeedsTheLayer(const char* forWhat);

// Windows only. Ends the process, in which one test runs, as if that were skipped. A process that a test started ends
// the test that hears of it.
inline constexpr char kNotHereText[] = "not on this system: Skipped";
[[noreturn]] void NotHere(const std::string& what);
