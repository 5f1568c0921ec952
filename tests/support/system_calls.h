// A process that is stopped at each of its system calls. Linux only.
#pragma once

#include <cstdint>
#include <functional>

struct SystemCall {
    int process;
    int number; // from 1: the how many-th of the function's calls
    uint64_t call;
    uint64_t arguments[6];
    bool done; // false: about to begin

    // What a call changes a file or makes it durable, as far as this layer does it.
    bool Changes() const;
    bool Syncs() const; // its first argument is the file
};

// Runs the function in a forked child, without exec, and calls `look` before and after each of its system calls; false
// kills the child there. Its result, or 128 + the signal's number.
int RunInSteps(const std::function<int()>& function, const std::function<bool(const SystemCall&)>& look);
