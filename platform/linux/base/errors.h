// Errors of Linux calls as last errors.
#pragma once

#include <winerror.h>
#include <winnt.h>

namespace oriel {

// The last error for a value of errno; ERROR_NO_SYSTEM_RESOURCES for what has no better one.
DWORD SystemError(int error);

} // namespace oriel
