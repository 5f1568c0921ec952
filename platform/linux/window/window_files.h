// A window is two files in the folder "windows" of the run directory, named by its handle:
//
//   5f3a09c1.queue   a FIFO, mode 0622: its owner reads, everybody posts. The window lives while the FIFO is open for
//                   reading. Only its user can open it so, and the kernel closes it when the process ends, so nobody
//                   can keep a dead window alive or make a live one look dead.
//   5f3a09c1.window  a WindowRecord, mode 0644: class, title, process, thread.
//   0c4411d7.reply   a FIFO that a sender opens for one answer.
//
// A file is created under a temporary name (.new-1b2c3d4e) and renamed when complete: first the FIFO, already open,
// then the record. So a FIFO without a reader at its final name, and a record without a live FIFO, are dead for good,
// and anybody may remove them without a lock. Handles are random: there is no shared counter to forge.
//
// No state in memory.
#pragma once

#include "base/descriptor.h"

#include <functional>
#include <winuser.h>

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
    ULONGLONG created; // monotonic clock in nanoseconds: the Z order
    char className[260];
    char title[260];
};
static_assert(sizeof(WindowRecord) == 552 && offsetof(WindowRecord, created) == 24);
static_assert(offsetof(WindowRecord, className) == 32 && offsetof(WindowRecord, title) == 292);

enum class Fifo { Queue, Reply };

inline DWORD HandleNumber(HWND window) {
    return HandleToULong(window);
}
// True for NULL, broadcasts and other values that no window has.
bool IsWindowNumber(HWND window);

// Creates a FIFO under a new handle, open for reading and writing (so that it never reports a hang-up). Not open, with
// the last error set, on failure.
Descriptor CreateFifo(Fifo kind, DWORD& handle);
void RemoveFifo(Fifo kind, DWORD handle);
// The non-blocking writing end. Not open when nobody reads it or it is not one of ours.
Descriptor OpenFifo(Fifo kind, DWORD handle);

// False with the last error set.
bool PublishWindow(const WindowRecord& record);
void RemoveWindow(DWORD handle);
// The record of a live window.
bool ReadWindow(DWORD handle, WindowRecord& record);

// Visits the live windows in no particular order, and removes the files of dead ones.
void VisitWindows(const std::function<void(const WindowRecord&)>& visit);

} // namespace oriel
