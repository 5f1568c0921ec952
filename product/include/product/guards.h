// Guards for what Windows hands out: each releases what it holds when it goes, so that no early return repeats a
// clean-up. Each belongs to one thread.
#pragma once

#include <windows.h>
#include <winspool.h>

#include <type_traits>
#include <utility>

// Holds a named mutex. The wait has no time limit. The kernel passes a dead owner's mutex to the next waiter; a live
// owner holds it across a few calls of the service, which end at the latest with the service. A service that hangs
// would block the waiter's own calls just as well.
struct MutexHold {
    explicit MutexHold(HANDLE mutex) { Acquire(mutex); }
    MutexHold() = default;
    ~MutexHold() { Release(); }
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;

    // An abandoned mutex counts as acquired: readers check whatever its last owner left half done.
    bool Acquire(HANDLE mutex, DWORD boundMs = INFINITE) {
        result = WaitForSingleObject(mutex, boundMs);
        if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) held = mutex;
        return held != nullptr;
    }
    // The same for a thread that ends when the event is set: false then, and nothing is held.
    bool AcquireUnless(HANDLE stopEvent, HANDLE mutex) {
        const HANDLE handles[] = {stopEvent, mutex};
        const DWORD woken = WaitForMultipleObjects(2, handles, FALSE, INFINITE);
        result = woken == WAIT_OBJECT_0 + 1      ? WAIT_OBJECT_0
                 : woken == WAIT_ABANDONED_0 + 1 ? WAIT_ABANDONED
                                                 : WAIT_FAILED;
        if (result != WAIT_FAILED) held = mutex;
        return held != nullptr;
    }
    void Release() {
        if (held != nullptr) ReleaseMutex(held);
        held = nullptr;
    }

    HANDLE held = nullptr;
    DWORD result = WAIT_FAILED; // of the wait
};

// Owns a handle and closes it. Null and INVALID_HANDLE_VALUE are no handle: the guard is false.
template <typename Handle, auto Close>
class Guard {
public:
    Guard() = default;
    explicit Guard(Handle handle) : m_handle(OrNone(handle)) {}
    Guard(Guard&& other) noexcept : m_handle(std::exchange(other.m_handle, Handle{})) {}
    Guard& operator=(Guard&& other) noexcept {
        if (this != &other) {
            Reset();
            m_handle = std::exchange(other.m_handle, Handle{});
        }
        return *this;
    }
    ~Guard() { Reset(); }

    void Reset() {
        if (m_handle) Close(std::exchange(m_handle, Handle{}));
    }
    Handle Get() const { return m_handle; }
    // For calls that return a handle through a pointer. Closes the present one.
    Handle* Receive() {
        Reset();
        return &m_handle;
    }
    explicit operator bool() const { return m_handle != Handle{}; }

private:
    static Handle OrNone(Handle handle) {
        if constexpr (std::is_same_v<Handle, HANDLE>) {
            if (handle == INVALID_HANDLE_VALUE) return nullptr;
        }
        return handle;
    }

    Handle m_handle{};
};

using KernelHandle = Guard<HANDLE, &CloseHandle>; // an event, a mutex, a file, a process
using RegistryKey = Guard<HKEY, &RegCloseKey>;
using ServiceHandle = Guard<SC_HANDLE, &CloseServiceHandle>; // a service, or the service control manager
using PrinterHandle = Guard<HANDLE, &ClosePrinter>;          // a printer of the spooler

// None when the key cannot be opened; error, which may be absent, then has the reason.
inline RegistryKey OpenKey(HKEY parent, const char* name, REGSAM access, LSTATUS* error = nullptr) {
    RegistryKey key;
    const LSTATUS status = RegOpenKeyExA(parent, name, 0, access, key.Receive());
    if (error != nullptr) *error = status;
    return key;
}

// A printer of the spooler for PRINTER_ACCESS_USE. None when it cannot be opened; the last error has the reason.
inline PrinterHandle OpenSpoolerPrinter(char* name) {
    PrinterHandle printer;
    OpenPrinterA(name, printer.Receive(), nullptr);
    return printer;
}
