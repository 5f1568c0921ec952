// The directories of the layer, for programs above it. State: in directories.cpp.
#include <oriel_directories.h>

#include "directories.h"

const char* WINAPI OrielStateDirectory() {
    return oriel::StateDirectory().c_str();
}

const char* WINAPI OrielRuntimeDirectory() {
    return oriel::RuntimeDirectory().c_str();
}
