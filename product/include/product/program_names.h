// File names of the product's programs in the installation directory (kDirectoryValue), and whether a file is there. No
// state.
//
// The desktop agent has a header of its own: product/desktop_agent.h.
#pragma once

#include "product/guards.h"

inline constexpr char kServiceProgram[] = "TVSDBN.EXE";     // the status database service
inline constexpr char kPrinterSideProgram[] = "TVSPSD.EXE"; // a printer side

// True when the file can be opened for reading; its contents are not looked at.
inline bool FileExists(const char* path) {
    return static_cast<bool>(KernelHandle(
        CreateFileA(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING, nullptr)));
}
