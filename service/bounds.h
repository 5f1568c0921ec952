// Bounds and times of the service, beside those of the interface (product/interface.h).
#pragma once

#include "product/interface.h"

// What is charged to the user who caused it before it is done, and given back when it ends.
enum Share { kShareDatabases, kShareMemory, kShareHandles, kShareWatches, kShareCount };

struct Bound {
    SIZE_T perUser;
    SIZE_T inAll;
};

// Entries of the handle table; a power of two.
inline constexpr DWORD kHandleSlots = 1 << 18;

inline constexpr Bound kBounds[kShareCount] = {
    /* kShareDatabases */ {.perUser = 8192, .inAll = 16384},
    // Bytes of variables, their values, names and member lists. A value that grew keeps its old block: up to twice its
    // size.
    /* kShareMemory */ {.perUser = 128 << 20, .inAll = 512 << 20},
    /* kShareHandles */ {.perUser = 65536, .inAll = kHandleSlots / 2},
    /* kShareWatches */ {.perUser = 16384, .inAll = 65536},
};

inline constexpr DWORD kUsersMax = 4096;
inline constexpr DWORD kVariablesPerDatabase = 2048;

// A pulse that follows another within the gap is part of a burst, and the burst is closed by a pulse of its own.
inline constexpr DWORD kBurstGapMs = 250;
inline constexpr DWORD kClosingDelayMs = 50;
// One that follows a question for the write time within the gap may come before the asker waits. Whether it has asked
// again is looked at after the delay, long enough for one that was told to have had its turn.
inline constexpr DWORD kLookGapMs = 1000;
inline constexpr DWORD kLookDelayMs = 200;
// A watcher of many variables misses what is pulsed while it delivers: the closing pulses of one database keep this
// distance.
inline constexpr DWORD kClosingSpacingMs = 4;
// A closing pulse is repeated while somebody who asks for the write time when told has not asked.
inline constexpr DWORD kClosingRepeatMs = 60;
inline constexpr DWORD kClosingRepeats = 6;
// Up to so many watches the writer's call pulses before its reply. Beyond, it would be held up by waking them all.
inline constexpr DWORD kWatchesPulsedAtOnce = 8;

// Tries of a reader before it takes the writer's lock: it then waits for the writers in front of it and no others.
inline constexpr int kReadTries = 64;
