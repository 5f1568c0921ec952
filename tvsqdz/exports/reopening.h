// Opening a manager's databases again in a service that was started anew (FollowService of manager/manager_database.h).
//
// Done by whichever thread finds that the service is another one, under the database mutex, while the other threads of
// the manager wait for it there. What the manager had of the old service goes over to the new one: its place in the
// printer list with the number, where that is free, and the ownership, unless another process took it first. Its
// variables start from their initial values and driver-data copies, as after any creation of the database.
#pragma once

#include "manager/manager_record.h"

// For the end of the record: what reopenings left open for threads that may still have waited for it.
void CloseRetiredMutexes(ManagerRecord* manager);
