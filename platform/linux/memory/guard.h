// Copies that a bad address cannot bring down: what ReadProcessMemory and WriteProcessMemory are made of, for the
// layer's own use where it reads records that it was handed.
#pragma once

#include <cstddef>

namespace oriel {

// Copies size bytes; true when all of them were. *copied tells how many, also on failure. The last error is untouched.
bool GuardedRead(void* to, const void* from, size_t size, size_t* copied);
bool GuardedWrite(void* to, const void* from, size_t size, size_t* copied);

// One record, whole or not at all.
template <typename Record>
bool GuardedCopy(Record& to, const void* from) {
    size_t copied = 0;
    return GuardedRead(&to, from, sizeof to, &copied);
}

} // namespace oriel
