// How a call fails.
#pragma once

#include <errhandlingapi.h>

namespace oriel {

// The result of a failed call, with its last error set: FALSE, NULL or 0 of the type, or what is given.
template <typename Result = BOOL>
Result Fail(DWORD error, Result result = Result()) {
    SetLastError(error);
    return result;
}

} // namespace oriel
