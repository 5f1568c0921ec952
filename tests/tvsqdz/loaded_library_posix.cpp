#include "loaded_library.h"
#include "private_machine.h"

#include <dlfcn.h>

LoadedLibrary::LoadedLibrary() : library(dlopen(LibraryPath("libtvsqdz.so.1").c_str(), RTLD_NOW)) {
    if (library == nullptr) failure = dlerror();
}

void* LoadedLibrary::Find(const char* name) const {
    return dlsym(library, name);
}

bool LoadedLibrary::IsThere() {
    void* const library = dlopen(LibraryPath("libtvsqdz.so.1").c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (library != nullptr) dlclose(library);
    return library != nullptr;
}

void LoadedLibrary::Unload() const {
    dlclose(library);
}
