// What went wrong, in the form in which the user hears it: what failed, why, and what to do next; and the exit code.
#pragma once

#include <cstdint>
#include <string>

// Exit codes of the command.
enum class Exit : int {
    Done = 0,
    False = 1,     // not found, refused, or not so
    Usage = 2,     // the command line or a value on it is wrong; nothing was done
    NoService = 3, // the product is not installed, not up, or its service does not run
    Denied = 4,
    TimedOut = 5,
};

// Thrown by what cannot go on; main() tells the user, once.
struct Failure {
    Exit exitCode;
    std::string what; // "cannot read PageCount of Front desk"
    std::string why;  // "unknown variable"; may be empty
    std::string next; // "list them with ..."; may be empty
    int64_t code = 0; // of the library or the system; 0 when none was involved
};

Failure UsageFailure(std::string what, std::string next = {});
// A status of the library: negative one of its own, positive one of the system.
Failure StatusFailure(int32_t status, std::string what);
// A code of GetLastError or of the registry.
Failure SystemFailure(uint32_t code, std::string what);

// "cannot read PageCount of Front desk: unknown variable (status -19); list them with 'oriel vars'", one line.
std::string FailureLine(const Failure& failure);
