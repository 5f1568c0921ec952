#include "loaded_library.h"
#include "private_machine.h"

#include <dlfcn.h>

void* LoadTheLibrary(std::string& failure) {
    void* library = dlopen(LibraryPath("libtvsqdz.so.1").c_str(), RTLD_NOW);
    if (library == nullptr) failure = dlerror();
    return library;
}

void* FindExport(void* library, const char* name) {
    return dlsym(library, name);
}

void UnloadTheLibrary(void* library) {
    dlclose(library);
}
