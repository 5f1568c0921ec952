// Ctrl-C and the other ends that a console brings, for commands that run until the user ends them.
#pragma once

#include <windows.h>

// From now on Ctrl-C, a closed console and the like set the event that this returns, manual-reset, and do nothing else.
// lastWordsMs: how long the command may take to end after a console was closed. Throws Failure. Called once.
HANDLE TakeOverInterrupts(DWORD lastWordsMs);
