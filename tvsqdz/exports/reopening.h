// Opening a manager's databases again in a restarted service (FollowService of manager/manager_database.h).
//
// The thread that finds a new service does it under the database mutex, while other threads of the manager wait there.
// The manager keeps its place in the printer list with its number, if that is free, and its ownership, unless another
// process took it first. Its variables start with their initial values and driver-data copies, as after any creation of
// the database.
#pragma once

#include "manager/manager_record.h"

// For the end of the record: closes the mutexes that reopenings left open because threads might still wait for them.
void CloseRetiredMutexes(ManagerRecord* manager);
