// What the opens of some client kinds do besides: repair the user's default printer, start the desktop agent. No state.
#pragma once

#include "manager/manager_record.h"

// Makes the printer the default one when the current default printer no longer exists. False when there is no default
// printer or it could not be changed.
bool RepairDefaultPrinter(const char* printerName);

// The desktop agent is the product's window on the user's desktop.

// Starts the agent unless it runs or has no desktop to run on: the caller is the system account, or the window station
// is not the interactive one. False when it should run and cannot be started. An agent that is not ready in time is not
// an error.
bool LaunchDesktopAgent(const ManagerRecord* manager);
