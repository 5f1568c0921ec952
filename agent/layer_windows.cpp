// Windows itself. No state.
#include "layer.h"

#include <windows.h>

// Only the current directory is the creator's; it could not be removed while the agent runs.
bool LeaveCreator() {
    char directory[MAX_PATH];
    const UINT length = GetSystemDirectoryA(directory, sizeof directory);
    return length > 0 && length < sizeof directory && SetCurrentDirectoryA(directory);
}

// A process is ended when its user logs off.
bool DesktopLives() {
    return true;
}
