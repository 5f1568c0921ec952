// Direct reads and writes: the printer itself is asked while the caller waits. The export's work once the variable is
// found, for the ANSI and the wide forms.
#pragma once

#include "manager/manager_record.h"
#include "manager/variables.h"
#include "product/status.h"
#include "requests/exchange.h"
#include "values/reading.h"

// Reads a variable that the printer can be asked for from the printer, any other as it is stored (ReadCurrent).
Status ReadDirect(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                  uint32_t* returned, bool* returnedWritten);

// data: the caller's. A variable that the printer does not take is given to its handler; TVS_E_UNKNOWN when it has
// none, and for one that is not writable.
Status WriteDirect(ManagerRecord* manager, const StatusVariableDef& variable, const void* data, uint32_t size);

// The calling user has the authority for a write of the variable, or it needs none.
bool MayWriteDirectly(const ManagerRecord* manager, const StatusVariableDef& variable);

// Has the printer asked, by the manager's path, and waits for the result, which is the status. TVS_E_NOT_READY when a
// request that is to be forwarded finds no spooler ready. The request mutex is held; mutexWait: the result of that
// wait.
Status AskPrinter(ManagerRecord* manager, RequestKind kind, const StatusVariableDef& variable, DWORD mutexWait);
