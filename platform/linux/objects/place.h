// Where the object server listens: a socket in the run directory. No state.
#pragma once

#include "base/descriptor.h"

#include <cstdint>
#include <string>
#include <windef.h>

namespace oriel {

// The descriptor that a server finds its socket under when another process has made it.
constexpr int kGivenListener = 3;

// A connection to the server of the run directory; else not open, with the error: ERROR_FILE_NOT_FOUND when nobody
// listens there, ERROR_BUSY when the server does not accept at the moment, ERROR_ACCESS_DENIED for a server that
// another user runs in a directory that is not theirs. Throws std::bad_alloc.
Descriptor ConnectToObjects(const std::string& directory, DWORD& error);

// Makes sure that somebody listens: under a lock that other processes respect, waited for until the deadline
// (base/futex.h), it looks again, and then listens itself. ERROR_SUCCESS: the listener, or none when another process
// was faster. ERROR_TIMEOUT; ERROR_PATH_NOT_FOUND when this user cannot put a socket there. Throws std::bad_alloc.
DWORD ListenForObjects(const std::string& directory, int64_t deadline, Descriptor& listener);

// The same, and starts the server's program, to which it gives the listener. ERROR_PATH_NOT_FOUND when it cannot be
// started. Throws std::bad_alloc.
DWORD StartObjectServer(const std::string& directory, int64_t deadline);

} // namespace oriel
