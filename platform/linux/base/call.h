// How a call of the layer fails, and the frame around calls that may run out of memory or must not be stopped halfway.
//
// No exception crosses an export. The only one that can occur is lack of memory; it becomes ERROR_NOT_ENOUGH_MEMORY.
//
// State: the last error of each thread (call.cpp).
#pragma once

#include "base/lock.h"

#include <errhandlingapi.h>
#include <new>
#include <stdexcept>
#include <winerror.h>

namespace oriel {

// The Win32 error for a value of errno; ERROR_NO_SYSTEM_RESOURCES when none fits.
DWORD SystemError(int error);

// Sets the last error and returns the result of a failed call: FALSE, NULL or 0 of the type, or the given value.
template <typename Result = BOOL>
Result Fail(DWORD error, Result result = Result()) {
    SetLastError(error);
    return result;
}

// For calls that return BOOL: TRUE for ERROR_SUCCESS, otherwise FALSE with the code as last error.
inline BOOL Succeeds(DWORD error) {
    return error == ERROR_SUCCESS ? TRUE : Fail(error);
}

// Returns body(), or withoutMemory() when an allocation in it fails. A container that would exceed its largest size
// counts too.
template <typename Body, typename WithoutMemory>
auto CatchLackOfMemory(Body body, WithoutMemory withoutMemory) -> decltype(body()) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return withoutMemory();
    } catch (const std::length_error&) {
        return withoutMemory();
    }
}

// For calls that wait for another process or run a procedure of the caller, and report by the last error. onFailure is
// the result when memory is lacking. TerminateThread may stop the thread inside body, where it holds nothing of the
// layer.
template <typename Result, typename Body>
Result WaitingCall(Result onFailure, Body body) {
    return CatchLackOfMemory([&]() -> Result { return body(); },
                             [&] { return Fail(ERROR_NOT_ENOUGH_MEMORY, onFailure); });
}

// For all other calls that report by the last error. TerminateThread stops the thread only after the call.
template <typename Result, typename Body>
Result Call(Result onFailure, Body body) {
    const TerminationHold hold;
    return WaitingCall(onFailure, body);
}

// For calls that return a code instead of setting the last error, such as those of the registry. Otherwise like Call.
template <typename Body>
auto CodeCall(Body body) -> decltype(body()) {
    const TerminationHold hold;
    return CatchLackOfMemory(body, [] { return ERROR_NOT_ENOUGH_MEMORY; });
}

} // namespace oriel
