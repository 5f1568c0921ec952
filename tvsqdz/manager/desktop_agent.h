// The desktop agent: the product's window on the user's desktop, started by the opens of some client kinds.
#pragma once

#include "manager/manager_record.h"

// Starts the agent unless it runs or there is no desktop to run on: a caller that is the system itself, or a window
// station other than the interactive one. False when it should run and cannot be started. An agent that is not ready in
// time is none of the caller's business.
bool LaunchDesktopAgent(const ManagerRecord* manager);
