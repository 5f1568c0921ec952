#include "holdings.h"

#include <windows.h>

#include <tlhelp32.h>

Holdings HeldNow() {
    Holdings held;
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    held.handles = static_cast<long>(handles);
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 thread = {};
    thread.dwSize = sizeof thread;
    for (BOOL found = Thread32First(snapshot, &thread); found; found = Thread32Next(snapshot, &thread))
        held.threads += thread.th32OwnerProcessID == GetCurrentProcessId();
    CloseHandle(snapshot);
    return held;
}
