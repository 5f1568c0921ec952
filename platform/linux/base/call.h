// How a call of the layer fails, and the frame of a call that may run out of memory or must not be stopped half-way.
//
// No exception crosses an export. The only one that can occur is a lack of memory, which becomes
// ERROR_NOT_ENOUGH_MEMORY. State: the last error of each thread (call.cpp).
#pragma once

#include "base/lock.h"

#include <errhandlingapi.h>
#include <new>
#include <stdexcept>
#include <winerror.h>

namespace oriel {

// The last error for a value of errno; ERROR_NO_SYSTEM_RESOURCES for what has no better one.
DWORD SystemError(int error);

// The result of a failed call, with its last error set: FALSE, NULL or 0 of the type, or what is given.
template <typename Result = BOOL>
Result Fail(DWORD error, Result result = Result()) {
    SetLastError(error);
    return result;
}

// The result of a call that gives TRUE or FALSE, from a code.
inline BOOL Succeeds(DWORD error) {
    return error == ERROR_SUCCESS ? TRUE : Fail(error);
}

// What body gives, or what withoutMemory gives when there is none.
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

// A call that waits for another process or runs a procedure of the caller's, and reports by the last error. A thread
// that TerminateThread stops may be stopped within it, where it holds nothing of the layer's.
template <typename Result, typename Body>
Result WaitingCall(Result onFailure, Body body) {
    return CatchLackOfMemory([&]() -> Result { return body(); },
                             [&] { return Fail(ERROR_NOT_ENOUGH_MEMORY, onFailure); });
}

// Any other call that reports by the last error: a thread that TerminateThread stops comes to its end first.
template <typename Result, typename Body>
Result Call(Result onFailure, Body body) {
    const TerminationHold hold;
    return WaitingCall(onFailure, body);
}

// A call that gives a code.
template <typename Body>
auto CodeCall(Body body) -> decltype(body()) {
    const TerminationHold hold;
    return CatchLackOfMemory(body, [] { return ERROR_NOT_ENOUGH_MEMORY; });
}

} // namespace oriel
