// Finding the status database service and opening a database there. No state.
//
// Under Windows NT it is a service, and the library only waits for it. Under Windows 95/98/Me it is an ordinary
// process, identified by its window, whose executable the registry names.
#pragma once

#include "product/client.h"

#include <windows.h>

// True once the NT service runs; false when it is stopped, cannot be queried, or is not up in time. While a service
// keeps reporting a check point and a wait hint, the wait continues.
bool WaitForStatusService(DWORD seconds);

// True once the window of the Windows 95/98/Me process exists; false when the product's start-up process does not run
// or the window does not appear in time. Opens do not wait for it, because creating a database restarts the process.
bool WaitForStatusService9x(DWORD seconds);

// Windows 95/98/Me: closes the running process and starts a new one. True when one was started; always false elsewhere.
bool RestartStatusService9x();

// Creates the database, or opens it when it exists, waiting while another process initialises it. Done: the handle is
// open; when it was created, the caller initialises the database and calls EndDatabaseInitialization. Any other answer:
// there is no handle.
Answer CreateOrOpenDatabase(const char* name, EnteredDatabase* entered);
// The same of the database that has the printer list; with the printer's, if it is there and ready.
Answer CreateOrOpenMaster(const char* printerName, EnteredPrinter* entered);
