// Settings of the service: its bounds and times beside those of the interface (product/interface.h), what an
// administrator sets, and the two clocks. No state.
#pragma once

#include "product/file_times.h"
#include "product/guards.h"
#include "product/interface.h"
#include "product/registry_names.h"

// What is charged to the user who caused it before the work is done, and released when it ends.
enum Share { kShareDatabases, kShareMemory, kShareHandles, kShareWatches, kShareCount };

struct Bound {
    SIZE_T perUser;
    SIZE_T inAll;
};

// Entries of the handle table; a power of two.
inline constexpr DWORD kHandleSlots = 1 << 18;

inline constexpr Bound kBounds[kShareCount] = {
    /* kShareDatabases */ {.perUser = 12288, .inAll = 16384},
    // Bytes of variables, their values, names and member lists, and of published sections: some 35 KiB for a printer,
    // of which a user may have ten thousand. A value that grew keeps its old blocks, which makes up to twice its size.
    /* kShareMemory */ {.perUser = 384 << 20, .inAll = 512 << 20},
    /* kShareHandles */ {.perUser = 65536, .inAll = kHandleSlots / 2},
    /* kShareWatches */ {.perUser = 16384, .inAll = 65536},
};

inline constexpr DWORD kUsersMax = 4096;
inline constexpr DWORD kVariablesPerDatabase = 2048;

// The writer's own call pulses an event of up to so many watches. Waking more would delay its reply, so the thread of
// the signals does it.
inline constexpr DWORD kWatchesPulsedAtOnce = 8;
// Before it does so again within kBurstMs, it lets whoever wants to write do so: one wake then tells of several writes.
inline constexpr DWORD kBurstMs = 10;
inline constexpr int kYieldsInBurst = 50; // some 20 us

// Tries of a reader before it takes the writer's lock, where it waits only for the writers in front of it.
inline constexpr int kReadTries = 64;

// ---- what an administrator sets: values of the product's key

// False when there is no value of that type and at most that size. A text need not end with a NUL: for a text, value
// has one byte more than size, and the caller clears it.
inline bool ReadSetting(const char* name, DWORD type, void* value, DWORD size) {
    const RegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, kProductKey, KEY_QUERY_VALUE);
    DWORD found = 0;
    return key &&
           RegQueryValueExA(key.Get(), name, nullptr, &found, static_cast<BYTE*>(value), &size) == ERROR_SUCCESS &&
           found == type;
}

// ---- the clocks: the time of day for write times, and milliseconds that only go forward for bounds

inline constexpr ULONGLONG kWriteTimeStep = 10000; // a millisecond, which is what a SYSTEMTIME can tell

// UTC, in 100 ns since 1601, cut to the millisecond.
inline ULONGLONG WriteTimeNow() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const ULONGLONG time = product::ToTime(now);
    return time - time % kWriteTimeStep;
}

// Tick counts wrap after 49.7 days. Two that are less than half of that apart compare by their difference.
inline bool TickReached(DWORD now, DWORD due) {
    return static_cast<LONG>(now - due) >= 0;
}
