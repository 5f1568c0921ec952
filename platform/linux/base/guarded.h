// What is around every call of the registry, the services and the spooler.
#pragma once

#include "base/lock.h"

#include <errhandlingapi.h>
#include <new>
#include <stdexcept>
#include <winerror.h>

namespace oriel {

// The code that a procedure gives, or ERROR_NOT_ENOUGH_MEMORY: no exception crosses a call, and the only one that can
// occur is a lack of memory. A thread that is terminated meanwhile stops behind the call, not within it.
template <typename Procedure>
auto Guarded(Procedure procedure) -> decltype(procedure()) {
    TerminationHold hold;
    try {
        return procedure();
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    } catch (const std::length_error&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

// The result of a call that gives TRUE or FALSE and sets the last error.
inline BOOL Succeeds(DWORD error) {
    if (error != ERROR_SUCCESS) SetLastError(error);
    return error == ERROR_SUCCESS;
}

} // namespace oriel
