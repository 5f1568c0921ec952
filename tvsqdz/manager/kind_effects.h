// The user's default printer, which may have gone.
#pragma once

#include "manager/manager_record.h"

// Makes the printer the default one when the present default printer does not exist any more. False when there is none
// to compare with or the change could not be made.
bool RepairDefaultPrinter(const char* printerName);

// The desktop agent: the product's window on the user's desktop, started by the opens of some client kinds.

// Starts the agent unless it runs or there is no desktop to run on: a caller that is the system itself, or a window
// station other than the interactive one. False when it should run and cannot be started. An agent that is not ready in
// time is none of the caller's business.
bool LaunchDesktopAgent(const ManagerRecord* manager);
