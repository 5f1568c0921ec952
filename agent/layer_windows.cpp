// What layer.h asks for, where the system is Windows itself.
#include "layer.h"

#include <windows.h>

// Only the directory is its creator's, which could not be removed.
bool LeaveCreator() {
    char directory[MAX_PATH];
    const UINT length = GetSystemDirectoryA(directory, sizeof directory);
    return length > 0 && length < sizeof directory && SetCurrentDirectoryA(directory);
}

// A process is ended when its user logs off.
bool DesktopLives() {
    return true;
}
