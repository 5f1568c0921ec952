#include "loaded_library.h"
#include "private_machine.h"

#include <windows.h>

void* LoadTheLibrary(std::string& failure) {
    const HMODULE library = LoadLibraryA(LibraryPath("TVSQDZ.DLL").c_str());
    if (!library) failure = "error " + std::to_string(GetLastError());
    return library;
}

void* FindExport(void* library, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void UnloadTheLibrary(void* library) {
    FreeLibrary(static_cast<HMODULE>(library));
}
