// What a window is on this machine: two files in the folder "windows" of the run directory, named by its handle.
//
//   5f3a09c1.queue   a FIFO, mode 0622: its owner reads, everybody posts. The window lives while the FIFO is open for
//                    reading. Only its own user can open it so, and the kernel closes it when the process is gone, so
//                    nobody can keep a dead window alive or make a living one look dead.
//   5f3a09c1.window  a WindowRecord, mode 0644: class, title, process, thread.
//   0c4411d7.reply   a FIFO that a sender opens for one answer.
//
// A file is made under a name of its own (.new-1b2c3d4e) and renamed when it is complete: first the FIFO, open already,
// then the record. So a FIFO at its final name without a reader, and a record without a living FIFO, are dead for good,
// and whoever meets one may remove it without a lock. Handles are random: no shared counter for others to forge.
//
// No state in memory.
#pragma once

#include "base/descriptor.h"
#include <winuser.h>

#include <functional>

namespace oriel {

constexpr DWORD kWindowRecordMagic = 0x4e49574f; // "OWIN"
constexpr DWORD kWindowRecordVersion = 1;

struct WindowRecord {
    DWORD magic;
    DWORD version;
    DWORD handle;
    DWORD processId;
    DWORD threadId;
    DWORD reserved;
    ULONGLONG created; // nanoseconds of the monotonic clock: the Z order
    char className[260];
    char title[260];
};
static_assert(sizeof(WindowRecord) == 552 && offsetof(WindowRecord, created) == 24);
static_assert(offsetof(WindowRecord, className) == 32 && offsetof(WindowRecord, title) == 292);

enum class Fifo { Queue, Reply };

inline DWORD HandleNumber(HWND window) {
    return HandleToULong(window);
}
// NULL, broadcasts and values that no window has.
bool IsWindowNumber(HWND window);

// A new FIFO, open for reading and writing (so that it never reports a hang-up), under a new handle. Not open, with the
// last error set, when it cannot be made.
Descriptor CreateFifo(Fifo kind, DWORD& handle);
void RemoveFifo(Fifo kind, DWORD handle);
// The writing end, without blocking. Not open when nobody reads it or it is not what this layer makes.
Descriptor OpenFifo(Fifo kind, DWORD handle);

// False with the last error set.
bool PublishWindow(const WindowRecord& record);
void RemoveWindow(DWORD handle);
// The record of a living window.
bool ReadWindow(DWORD handle, WindowRecord& record);

// Visits the living windows in no particular order, and removes what dead ones left behind.
void VisitWindows(const std::function<void(const WindowRecord&)>& visit);

} // namespace oriel
