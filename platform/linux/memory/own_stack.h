// The stack of the calling thread. No state.
#pragma once

#include <cstddef>
#include <cstdint>

namespace oriel {

struct AddressRange {
    uintptr_t begin = 0;
    uintptr_t end = 0;

    bool Holds(uintptr_t address, size_t size) const {
        return address >= begin && address <= end && size <= end - address;
    }
};

// Empty when it cannot be found. The main thread's may grow; it counts only up to 64 MiB.
AddressRange FindOwnStack();

// Gives the pages back that the thread does not use, below the caller's frame.
void ReleaseUnusedStack();

} // namespace oriel
