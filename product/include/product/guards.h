// Guards: what they hold is given back where they end, so that no early return repeats a clean-up.
#pragma once

#include <windows.h>
#include <winspool.h>

// Holds a named mutex. The wait has no time limit: the kernel gives a dead owner's mutex to the next waiter, and a
// living owner holds it across a few calls of the service, which end at the latest with the service. One that stands
// still would hold up the waiter's own calls just as well.
struct MutexHold {
    explicit MutexHold(HANDLE mutex) { Acquire(mutex); }
    MutexHold() = default;
    ~MutexHold() { Release(); }
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;

    // An abandoned mutex counts as obtained: whatever its last owner left half done is checked by those who read it.
    bool Acquire(HANDLE mutex, DWORD boundMs = INFINITE) {
        result = WaitForSingleObject(mutex, boundMs);
        if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) held = mutex;
        return held != nullptr;
    }
    // The same for a thread that is to end once the event is set: false then, and nothing is held.
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

// A handle of the kernel: an event, a mutex, a file, a process.
struct KernelHandle {
    explicit KernelHandle(HANDLE owned) : handle(owned) {}
    ~KernelHandle() {
        if (handle != nullptr && handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
    }
    KernelHandle(const KernelHandle&) = delete;
    KernelHandle& operator=(const KernelHandle&) = delete;

    explicit operator bool() const { return handle != nullptr && handle != INVALID_HANDLE_VALUE; }

    HANDLE handle;
};

// An open registry key.
struct RegistryKey {
    RegistryKey() = default;
    RegistryKey(HKEY parent, const char* name, REGSAM access) { Open(parent, name, access); }
    ~RegistryKey() { Close(); }
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    // ERROR_SUCCESS, or why there is no key. parent may be the key that this guard holds.
    LSTATUS Open(HKEY parent, const char* name, REGSAM access) {
        HKEY opened = nullptr;
        error = RegOpenKeyExA(parent, name, 0, access, &opened);
        Close();
        key = error == ERROR_SUCCESS ? opened : nullptr;
        return error;
    }
    void Close() {
        if (key != nullptr) RegCloseKey(key);
        key = nullptr;
    }
    explicit operator bool() const { return key != nullptr; }

    HKEY key = nullptr;
    LSTATUS error = ERROR_SUCCESS;
};

// A printer of the spooler, by its name, for PRINTER_ACCESS_USE.
struct SpoolerPrinter {
    explicit SpoolerPrinter(char* name) {
        if (!OpenPrinterA(name, &handle, nullptr)) handle = nullptr;
    }
    ~SpoolerPrinter() {
        if (handle != nullptr) ClosePrinter(handle);
    }
    SpoolerPrinter(const SpoolerPrinter&) = delete;
    SpoolerPrinter& operator=(const SpoolerPrinter&) = delete;

    explicit operator bool() const { return handle != nullptr; }

    HANDLE handle = nullptr;
};
