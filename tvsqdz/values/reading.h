// Reads of a variable: its current value, and the time of its last write. No state.
#pragma once

#include "manager/manager_record.h"
#include "manager/variables.h"
#include "product/status.h"

// Where a read stores its result. Each part of the caller's memory is written at most once, and the returned size last,
// on every path.
struct ReadTarget {
    void* buffer;
    uint32_t size; // 0 when there is no buffer
    uint32_t* returnedSize;
};

// Set *returned to the future returned size, and write the buffer. TakeQueueItem also writes the returned size itself
// when it removes an item (*returnedWritten), so that a bad pointer loses no item.
Status ReadValue(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                 uint32_t* returned);
Status TakeQueueItem(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                     uint32_t* returned, bool* returnedWritten);
// ReadValue or TakeQueueItem, depending on the type.
Status ReadCurrent(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                   uint32_t* returned, bool* returnedWritten);

// The frame of a read export: finds the manager and a readable variable, reads, and writes the returned size.
using ReadProc = Status (*)(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                            uint32_t* returned, bool* returnedWritten);
Status ServeRead(TvsManager manager, const char* callersVariable, void* buffer, uint32_t size, uint32_t* returnedSize,
                 ReadProc read);
Status ServeRead(TvsManager manager, const WCHAR* callersVariable, void* buffer, uint32_t size, uint32_t* returnedSize,
                 ReadProc read);

// Writes the time of the last write to the caller's 16 bytes. TVS_OK, TVS_E_UNKNOWN when the service does not answer
// with one, TVS_E_FAULT.
Status GiveWriteTime(ManagerRecord* manager, const StatusVariableDef& variable, SYSTEMTIME* callersTime);
