// For what a test does that the system it runs on has no form of.
#pragma once

// Whether the layer answers, and not Windows. It refuses what nobody needs where Windows has a use for it, and has
// settings of its own.
bool OnTheLayer();
// Ends the test as skipped where Windows answers, which has no form of this.
void NeedsTheLayer(const char* forWhat);

// What such a test prints first. A process that a test started ends the test that hears of it.
inline constexpr char kNotHereText[] = "not on this system: Skipped";
