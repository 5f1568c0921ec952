// When a variable was last written.
#pragma once

#include "manager/manager_record.h"
#include "manager/status_variable.h"
#include "product/status.h"

// Writes the time to the caller's 16 bytes. TVS_OK, TVS_E_UNKNOWN when the service does not tell it, TVS_E_FAULT.
Status GiveWriteTime(ManagerRecord* manager, const StatusVariableDef& variable, SYSTEMTIME* callersTime);
