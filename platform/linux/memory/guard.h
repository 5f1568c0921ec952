// Copies that survive a bad address. ReadProcessMemory and WriteProcessMemory are built on them, and the layer uses
// them to read records of its callers.
//
// State: constant addresses (guard.cpp). Any thread may call these functions, also in a fork child.
#pragma once

#include <cstddef>

namespace oriel {

// Copies size bytes; true when all were copied. *copied is the number of bytes copied, also on failure. The last error
// stays as it was.
bool GuardedRead(void* to, const void* from, size_t size, size_t* copied);
bool GuardedWrite(void* to, const void* from, size_t size, size_t* copied);

// Copies one record, which need not be aligned. False when not all of it could be read; `to` may then be partly
// overwritten.
template <typename Record>
bool GuardedCopy(Record& to, const void* from) {
    size_t copied = 0;
    return GuardedRead(&to, from, sizeof to, &copied);
}

} // namespace oriel
