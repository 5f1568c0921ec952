// Closing a manager.
#pragma once

#include "manager/manager_record.h"
#include "product/status.h"

// The steps of a close, for the export, for an open that could not be completed, and for the process's detach. TVS_OK,
// or TVS_E_HANDLE for what is no open manager.
Status CloseManagerOf(TvsManager handle);

// Closes the databases that the record has open.
void CloseDatabases(ManagerRecord* manager);
