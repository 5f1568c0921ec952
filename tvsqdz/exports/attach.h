// The library's arrival in a process and its departure.
#pragma once

#include <windows.h>

// Sets up everything of process_state.h, the heap and the binding. False when the product is not set up on this machine
// (its key or "DIRPATH" is missing) or a part cannot be had; everything is undone then, and the library lets no call
// in.
bool AttachProcess(HINSTANCE module);

// Closes the managers that are still open and takes everything down. Harmless after an attach that failed.
void DetachProcess();
