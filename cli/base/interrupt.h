// Ctrl-C and other console events, for commands that run until the user ends them.
#pragma once

#include <windows.h>

// Makes Ctrl-C, a closed console and similar events set the manual-reset event that this returns, and do nothing else.
// Called once per process. lastWordsMs: how long the command may take to end after its console was closed. Throws
// Failure.
HANDLE TakeOverInterrupts(DWORD lastWordsMs);
