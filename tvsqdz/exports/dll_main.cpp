// The entry point, which the loader calls when the library comes into a process and when it goes.
#include "exports/attach.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        return AttachProcess(module);
    case DLL_PROCESS_DETACH:
        DetachProcess();
        return TRUE;
    default:
        return TRUE;
    }
}
