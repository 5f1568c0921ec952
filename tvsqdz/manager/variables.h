// A status variable as the library serves it: a row of the shared table (product/variables.h) or of the printer's
// model, with the library's own handlers.
#pragma once

#include "product/variable_types.h"

#include <stdint.h>
#include <string.h>
#include <windows.h>

struct ManagerRecord;

// Builds an initial value. buffer null: only answers the size in bytes; else fills *buffer with that many.
using BuildDefaultProc = uint32_t (*)(void** buffer);
// Serves a write inside the library; a status of the exports.
using LocalWriteProc = int32_t (*)(ManagerRecord* manager, const void* data, uint32_t size);
// Serves a read inside the library; the value's size in bytes. buffer null: only that.
using LocalReadProc = uint32_t (*)(ManagerRecord* manager, void* buffer);
// Converts between the ANSI and the wide form of a value; size: of the wide form, in bytes.
using ConvertProc = int32_t(WINAPI*)(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
using ThreadProc = DWORD(WINAPI*)(void* parameter);

struct StatusVariableDef {
    uint32_t flags = 0;     // type code and behaviour bits
    uint32_t size = 0;      // in bytes as the A exports exchange it; of a queue's item; 0 where it varies
    uint32_t timeoutMs = 0; // part of the catalogue; the library does not act on it
    // At least `size` bytes. A variable-length value in its stored form; of a composite its members' names, each
    // followed by ";", and NUL-terminated.
    const void* defaultValue = nullptr;
    // Handlers; null: the variable is served as all others are.
    BuildDefaultProc buildDefault = nullptr;
    ThreadProc watchThreadProc = nullptr;    // watches it for events and messages
    ThreadProc callbackThreadProc = nullptr; // watches it for callbacks
    LocalWriteProc localWrite = nullptr;
    LocalReadProc localRead = nullptr;
    ConvertProc toWide = nullptr;
    ConvertProc toAnsi = nullptr;
    const char* name = nullptr;
};

constexpr uint32_t TypeOf(const StatusVariableDef& variable) {
    return variable.flags & SVT_MASK;
}

// The handlers that rows of the variable table name: declared here, beside the table, and defined where what they serve
// lies. A row names none where the default serves it.

// Watchers: thread procedures whose parameter is a NotificationRegistration (notify/delivery.h).
DWORD WINAPI StartWatch(void* registration);            // of no entries: tells the others that a service has started
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
int32_t TerminateManagerWrite(ManagerRecord* manager, const void* data, uint32_t size); // notify/own_watches.cpp

// Reads inside the library (LocalReadProc).
uint32_t UserAuthorityRead(ManagerRecord* manager, void* buffer); // "UserAuthority", 4 bytes
uint32_t PrintingMyJobRead(ManagerRecord* manager, void* buffer); // own jobs of "PrinterQueue", 4 bytes
uint32_t SpoolingMyJobRead(ManagerRecord* manager, void* buffer); // own jobs of "SpoolerQueue", 4 bytes

// The built-in status variables, in the order of their names, ended by a row without a name. At process attach the rows
// are counted (g_variableCount).
extern const StatusVariableDef* const kStatusVariables;

uint32_t CountStatusVariables();
