// The files of a store: "<name>.sqlite", SQLite's journal, and beside them
//
//   <name>.lock  mode 0600: who has locked it (flock) changes the store. Nobody opens it who may not write.
//   <name>.seq   as readable as the store: the number of the store's state (sequence.h)
//
// Links are never followed, and a file must be a regular one with one name whose owner is this user, root or the owner
// of its directory. State: none.
#pragma once

#include "base/descriptor.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <windef.h>

namespace oriel {

// The Win32 error for a value of errno of a file.
DWORD FileError(int error);

std::string DirectoryOf(const std::string& path);

// ERROR_BADDB for what is no file of its own, ERROR_ACCESS_DENIED for another user's, ERROR_FILE_NOT_FOUND.
DWORD CheckFile(const std::string& path);

// Opens such a file. With O_CREAT a new one has exactly this mode, whatever the umask.
DWORD OpenFile(const std::string& path, int flags, mode_t mode, Descriptor* file);

// True when the file that is open still is the one at the path.
bool IsInPlace(const Descriptor& file, const std::string& path);

// True when a directory is one, belongs to this user or root, and nobody else may write to it (or it is sticky).
bool IsSafeDirectory(const std::string& path);

// Makes a directory with exactly this mode, whatever the umask, which survives a power cut. An existing one keeps its
// mode. False when it cannot be made or is not safe.
bool MakeSafeDirectory(const std::string& path, mode_t mode);

// Makes the names in a directory survive a power cut.
bool SyncDirectory(const std::string& path);

// The lock of those who change a store.
class WritersLock {
public:
    // Waits until the deadline (as in base/futex.h); 0: does not wait. ERROR_BUSY, ERROR_ACCESS_DENIED, ERROR_BADDB.
    DWORD Acquire(const std::string& path, int64_t deadline);
    void Release();
    bool IsHeld() const { return m_file.IsOpen(); }
    // In a fork child: the lock stays the parent's.
    void Forget() { m_file.Close(); }

private:
    Descriptor m_file;
};

// Pauses before another look at what other processes do: ever longer, at most some milliseconds. False when the
// deadline passed or this thread is to be terminated.
class Pauses {
public:
    bool Pause(int64_t deadline);

private:
    int64_t m_next = 50'000; // nanoseconds
};

} // namespace oriel
