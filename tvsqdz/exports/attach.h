// Attach and detach of the library.
#pragma once

#include <windows.h>

// Sets up process_state.h, the heap and the binding. False when the product is not set up on this machine (its key or
// "DIRPATH" is missing) or a part fails; everything is undone then, and the library admits no call.
bool AttachProcess(HINSTANCE module);

// At the first open of a fork child (IsForkChild): what the child needs of its own. The heap and the binding are usable
// as they are. False: the next open tries again.
bool AttachForkChild();

// Closes the managers that are still open and takes everything down. Harmless after a failed attach.
void DetachProcess();
