// Closing a manager.
#pragma once

#include "manager/manager_record.h"
#include "product/status.h"

// The steps of a close, for the export, for an open that could not be completed, and for the detach. TVS_OK, or
// TVS_E_HANDLE when the handle is not an open manager.
Status CloseManagerOf(TvsManager handle);

// Closes the databases of the record.
void CloseDatabases(ManagerRecord* manager);
