// Failures as the user sees them: what failed, why, what to do next, and the exit code. No state.
#pragma once

#include <cstdint>
#include <string>

// Exit codes of the command.
enum class Exit : int {
    Done = 0,
    False = 1,     // not found, refused, or the answer is no
    Usage = 2,     // the command line or a value on it is wrong; nothing was done
    NoService = 3, // the product is not installed, not up, or its service does not run
    Denied = 4,
    TimedOut = 5,
};

// Thrown by code that cannot go on. main() prints it once.
struct Failure {
    Exit exitCode;
    std::string what; // "cannot read PageCount of Front desk"
    std::string why;  // "unknown variable"; may be empty
    std::string next; // "list them with ..."; may be empty
    int64_t code = 0; // of the library or the system; 0 when none was involved
};

Failure UsageFailure(std::string what, std::string next = {});
// From a status of the library: negative ones are its own or the service's, positive ones the system's.
Failure StatusFailure(int32_t status, std::string what);
// From a code of GetLastError or of the registry.
Failure SystemFailure(uint32_t code, std::string what);

// "cannot read PageCount of Front desk: unknown variable (status -19); list them with 'oriel vars'", one line.
std::string FailureLine(const Failure& failure);
