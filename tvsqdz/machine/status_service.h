// Finding the status database service: waiting until it is up, and restarting it where the library may.
//
// Under Windows NT it is a service, which the library only waits for. Under Windows 95/98/Me it is an ordinary process
// that shows itself by a window and whose executable the registry names.
#pragma once

#include "product/client.h"

#include <windows.h>

// True once the NT service runs; false when it is stopped, cannot be asked, or is not up in time. A service that keeps
// announcing a check point and a wait hint is waited for as long as it does so.
bool WaitForStatusService(DWORD seconds);

// True once the window of the Windows 95/98/Me process is there; false when the product's start-up process does not run
// or the window does not appear in time. No open waits for it: creating a database restarts the process by itself.
bool WaitForStatusService9x(DWORD seconds);

// Windows 95/98/Me: has the present process close and starts a new one. True when one was started; always false
// elsewhere.
bool RestartStatusService9x();

// Getting hold of a database that may not exist yet, may be ready, or may just be initialised by another process.

// Creates the database or opens the one that exists. Done: *handle is open, and with *created the caller initialises it
// and ends that with EndDatabaseInitialization. Any other answer is why there is no handle.
Answer CreateOrOpenDatabase(const char* name, DatabaseHandle* handle, bool* created);
