// The shared library as a program that was not linked with it has it. A file for each system.
#pragma once

#include <string>

struct LoadedLibrary {
    LoadedLibrary();
    void Unload() const;
    static bool IsThere(); // in the process
    template <typename Function>
    Function* Find(const char* name, Function*) const {
        return reinterpret_cast<Function*>(Find(name));
    }
    void* Find(const char* name) const;
    void* library;
    std::string failure; // empty when it is loaded
};
