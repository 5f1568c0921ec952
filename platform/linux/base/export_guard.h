// The frame of every call of this folder.
#pragma once

#include "base/lock.h"

#include <errhandlingapi.h>

#include <new>

namespace oriel {

// No exception crosses an export: what runs out of memory fails with ERROR_NOT_ENOUGH_MEMORY.
template <typename Result, typename Body>
Result WithoutExceptions(Result onFailure, Body body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return onFailure;
    }
}

// The same for a call that neither waits nor runs a procedure of the caller's: a thread that TerminateThread stops
// comes to its end first.
template <typename Result, typename Body>
Result Undivided(Result onFailure, Body body) {
    const TerminationHold hold;
    return WithoutExceptions(onFailure, body);
}

} // namespace oriel
