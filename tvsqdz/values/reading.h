// Reading the current value of a variable.
#pragma once

#include "manager/manager_record.h"
#include "manager/variables.h"
#include "product/status.h"

// Where a read gives its value. The caller's memory is written at most once for each, and the returned size last, on
// every way out.
struct ReadTarget {
    void* buffer;
    uint32_t size; // 0 when there is no buffer
    uint32_t* returnedSize;
};

// Set *returned to what the returned size becomes, and write the buffer. The queue's reader also writes the returned
// size itself when it takes an item off (*returnedWritten): no item may be lost to a pointer that cannot be written.
Status ReadValue(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                 uint32_t* returned);
Status TakeQueueItem(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                     uint32_t* returned, bool* returnedWritten);
// One of the two, as the variable's type asks.
Status ReadCurrent(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                   uint32_t* returned, bool* returnedWritten);

// The frame of a read export: the manager, a readable variable, and the returned size, around one way of reading.
using ReadProc = Status (*)(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                            uint32_t* returned, bool* returnedWritten);
Status ServeRead(TvsManager manager, const char* callersVariable, void* buffer, uint32_t size, uint32_t* returnedSize,
                 ReadProc read);
Status ServeRead(TvsManager manager, const WCHAR* callersVariable, void* buffer, uint32_t size, uint32_t* returnedSize,
                 ReadProc read);

// When a variable was last written.

// Writes the time to the caller's 16 bytes. TVS_OK, TVS_E_UNKNOWN when the service does not tell it, TVS_E_FAULT.
Status GiveWriteTime(ManagerRecord* manager, const StatusVariableDef& variable, SYSTEMTIME* callersTime);
