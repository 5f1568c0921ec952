// The handlers that rows of the variable table name: declared here, beside the table, and defined where what they serve
// lies. A row names none where the default serves it.
#pragma once

#include "manager/status_variable.h"

#include <string.h>

// Watchers: thread procedures whose parameter is a NotificationRegistration (notify/registration_record.h).
DWORD WINAPI ChangeWatch(void* registration);           // the default for events and messages, of any number of entries
DWORD WINAPI ChangeCallbackWatch(void* registration);   // the default for callbacks
DWORD WINAPI VariableWatch(void* registration);         // of one variable, each signal one delivery
DWORD WINAPI VariableCallbackWatch(void* registration); // the same for callbacks
DWORD WINAPI TerminateManagerWatch(void* registration); // one termination of the product's managers
DWORD WINAPI UserAuthorityWatch(void* registration);    // the authority computed for a read has changed
DWORD WINAPI MyJobWatch(void* registration);            // the number of the manager's own jobs has changed

// Writes: the status is that of the update. A value longer than its record is looked at as far as that reaches; a
// shorter one is refused.
template <typename Record>
bool TakeRecord(const void* data, uint32_t size, Record* record) {
    if (size < sizeof *record) return false;
    memcpy(record, data, sizeof *record);
    return true;
}

int32_t SendingJobInfoWrite(ManagerRecord* manager, const void* data, uint32_t size);
int32_t PrintingJobInfoWrite(ManagerRecord* manager, const void* data, uint32_t size);
int32_t PrintingJobInfo2Write(ManagerRecord* manager, const void* data, uint32_t size);
int32_t SetJobWrite(ManagerRecord* manager, const void* data, uint32_t size);
int32_t DeleteJobIdWrite(ManagerRecord* manager, const void* data, uint32_t size);
int32_t PortWrite(ManagerRecord* manager, const void* data, uint32_t size);
int32_t PrinterNameWrite(ManagerRecord* manager, const void* data, uint32_t size);
int32_t TerminateManagerWrite(ManagerRecord* manager, const void* data, uint32_t size); // notify/termination.cpp

// Reads inside the library (LocalReadProc).
uint32_t UserAuthorityRead(ManagerRecord* manager, void* buffer); // "UserAuthority", 4 bytes
uint32_t PrintingMyJobRead(ManagerRecord* manager, void* buffer); // own jobs of "PrinterQueue", 4 bytes
uint32_t SpoolingMyJobRead(ManagerRecord* manager, void* buffer); // own jobs of "SpoolerQueue", 4 bytes
