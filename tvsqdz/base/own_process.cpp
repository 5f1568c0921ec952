// Asked at each open that needs it: the name of an executable is cheap, and nothing here has to be kept.
#include "base/own_process.h"

#include <windows.h>

namespace {

constexpr const char* kOwnExecutables[] = {"TVORSN.EXE", "TVORS9.EXE", "TVPILN.EXE", "TVRMMN.EXE", "TVRMM9.EXE"};

// The second byte of a double-byte character may look like a backslash.
const char* BehindLastBackslash(const char* path) {
    const char* fileName = path;
    while (*path != '\0') {
        const bool lead = IsDBCSLeadByte(static_cast<BYTE>(*path)) != FALSE;
        const bool backslash = !lead && *path == '\\';
        ++path;
        if (lead && *path != '\0') ++path;
        if (backslash) fileName = path;
    }
    return fileName;
}

} // namespace

bool IsOwnProcess() {
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    if (length == 0 || length >= sizeof path) return false; // a path that was cut has another end
    const char* fileName = BehindLastBackslash(path);
    for (const char* own : kOwnExecutables)
        if (lstrcmpiA(fileName, own) == 0) return true;
    return false;
}
