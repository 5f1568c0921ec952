// The number of a store's state, in a file beside the store: even while the store rests, odd while a change is written
// to it. Readers take no lock, so nothing that a reader does can hold up a writer: a reader looks at the number before
// and after, and takes nothing for data that was read while the number moved.
//
// The number is trusted within one run of the system only: after a power cut the file may be older than the store.
//
// State: the open file.
#pragma once

#include "base/descriptor.h"

#include <cstdint>
#include <string>
#include <windef.h>

namespace oriel {

struct SequenceState {
    uint64_t number = 0; // 0: there is no such file, or it has no number
    bool isOfThisBoot = false;
    bool Rests() const { return number % 2 == 0; }
};

class Sequence {
public:
    void Place(std::string path) { m_path = std::move(path); }
    // Opens the file again when it was removed.
    SequenceState Read();
    // Only with the writers' lock. Makes the file, or its content, when it is missing or damaged; the number is then
    // one that was never used.
    DWORD OpenToWrite(mode_t mode);
    DWORD Write(uint64_t number);
    void Close() { m_file.Close(); }

private:
    std::string m_path;
    Descriptor m_file;
};

} // namespace oriel
