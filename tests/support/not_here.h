// For what a test does that the system it runs on has no form of.
#pragma once

#include <string>

// Ends the test as skipped. In a process that a test started it ends that process with a code of its own, and the test
// that hears of it.
[[noreturn]] void NotHere(const std::string& what);
