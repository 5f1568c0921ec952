// The manager service: in the process that owns a printer, a thread that serves what other processes relay to it, until
// its manager closes. It turns the message registrations that they leave (relayed_registrations.h) into registrations
// of its manager, and carries out the read requests that they leave (relayed_requests.h).
#pragma once

#include "manager/manager_record.h"

// Starts the thread of a manager that owns its printer and is not in the list of managers yet: its record becomes the
// first of the manager's. Nobody waits for the thread to begin, for it looks first of all for what was left before.
// False when there is no memory or no thread.
bool StartManagerService(ManagerRecord* manager);
