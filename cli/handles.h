// Guards of what the command opens: each closes its handle when it goes.
#pragma once

#include <tvsqdz.h>
#include <windows.h>
#include <winspool.h>

#include <utility>

template <typename Handle, auto Close>
class Guard {
public:
    Guard() = default;
    explicit Guard(Handle handle) : m_handle(handle) {}
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
    // For calls that hand a handle out.
    Handle* Receive() {
        Reset();
        return &m_handle;
    }
    explicit operator bool() const { return m_handle != Handle{}; }

private:
    Handle m_handle{};
};

using KernelHandle = Guard<HANDLE, &CloseHandle>;
using RegistryKey = Guard<HKEY, &RegCloseKey>;
using ServiceHandle = Guard<SC_HANDLE, &CloseServiceHandle>;
using PrinterHandle = Guard<HANDLE, &ClosePrinter>;
using Manager = Guard<TvsManager, &CloseManager>;
