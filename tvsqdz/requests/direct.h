// Direct reads and writes: the printer is asked while the caller waits. For the ANSI and the wide exports, once they
// have the variable. No state.
#pragma once

#include "manager/manager_record.h"
#include "manager/variables.h"
#include "product/status.h"
#include "requests/exchange.h"
#include "values/reading.h"

// Reads the variable from the printer if the printer can be asked for it, else its stored value (ReadCurrent).
Status ReadDirect(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                  uint32_t* returned, bool* returnedWritten);

// data: caller memory. A variable that the printer does not take goes to its handler; TVS_E_UNKNOWN when it has none,
// and when it is not writable.
Status WriteDirect(ManagerRecord* manager, const StatusVariableDef& variable, const void* data, uint32_t size);

// True when the calling user has the authority for a write of the variable, or it needs none.
bool MayWriteDirectly(const ManagerRecord* manager, const StatusVariableDef& variable);

// Sends the request on the path of the manager and waits for the result, which is the status. TVS_E_NOT_READY when a
// request that has to be forwarded finds no spooler ready. The caller holds the request mutex; mutexWait: the result of
// that wait.
Status AskPrinter(ManagerRecord* manager, RequestKind kind, const StatusVariableDef& variable, DWORD mutexWait);
