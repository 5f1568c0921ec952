// Reading what can grow between the question for its size and the read: one loop for all programs. Throws nothing by
// itself and works with any kind of buffer. No state.
#pragma once

#include <windows.h>
#include <winspool.h>

enum class ReadAttempt { Done, Grew, Failed };

// A reader that always comes too late does not end by itself; eight times in a row means that something is wrong.
inline constexpr int kReadAttempts = 8;

// Calls attempt() until it does not answer Grew: its buffer was too small, and is as large as was needed by now. Grew
// is also the answer after the last attempt.
template <typename Attempt>
ReadAttempt ReadWhileItGrows(Attempt attempt) {
    for (int i = 1; i < kReadAttempts; ++i)
        if (const ReadAttempt result = attempt(); result != ReadAttempt::Grew) return result;
    return attempt();
}

// The same for EnumJobsA, GetPrinterA and other calls of the spooler that fail with ERROR_INSUFFICIENT_BUFFER.
//   call   BOOL(BYTE* room, DWORD size, DWORD* needed)
//   grow   BYTE*(DWORD size): room of that many bytes; null: out of memory
//   size   of the first room; 0: the first call only tells how much is needed
// False: the last error has the reason, but for a lack of memory.
template <typename Grow, typename Call>
bool ReadSpoolerRecords(Grow grow, Call call, DWORD size = 0) {
    BYTE* room = size != 0 ? grow(size) : nullptr;
    if (size != 0 && room == nullptr) return false;
    const auto attempt = [&] {
        DWORD needed = 0;
        if (call(room, size, &needed)) return ReadAttempt::Done;
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) return ReadAttempt::Failed;
        size = needed;
        room = grow(needed);
        return room != nullptr ? ReadAttempt::Grew : ReadAttempt::Failed;
    };
    return ReadWhileItGrows(attempt) == ReadAttempt::Done;
}

inline constexpr DWORD kAllJobs = 0xFFFFFFFF;

// The first jobs of a printer as JOB_INFO_1A records, *count of them, in the order of its queue.
template <typename Grow>
bool ReadJobs(HANDLE printer, Grow grow, DWORD* count, DWORD most = kAllJobs, DWORD size = 0) {
    const auto call = [&](BYTE* room, DWORD space, DWORD* needed) {
        return EnumJobsA(printer, 0, most, 1, room, space, needed, count);
    };
    return ReadSpoolerRecords(grow, call, size);
}
