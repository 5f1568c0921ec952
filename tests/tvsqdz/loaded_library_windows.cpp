#include "loaded_library.h"
#include "private_machine.h"

#include <windows.h>

LoadedLibrary::LoadedLibrary() : library(LoadLibraryA(LibraryPath("TVSQDZ.DLL").c_str())) {
    if (library == nullptr) failure = "error " + std::to_string(GetLastError());
}

void* LoadedLibrary::Find(const char* name) const {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

bool LoadedLibrary::IsThere() {
    return GetModuleHandleA("TVSQDZ.DLL") != nullptr;
}

void LoadedLibrary::Unload() const {
    FreeLibrary(static_cast<HMODULE>(library));
}
