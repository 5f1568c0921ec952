// The connection of a printer side with the status database service: the printer's database, its watches and the
// events that tell of requests.
//
// Calls that fail because the service has gone, or another has come that does not know our handle, mark the link lost;
// whoever uses it asks once at the end.
#pragma once

#include "device.h"

#include "product/client.h"
#include "product/guards.h"
#include "product/object_names.h"

#include <map>
#include <string>

// The variables that tell what to do, in the order of their events.
enum Watched : DWORD { kWatchedRead, kWatchedWrite, kWatchedMailbox, kWatchedFunction, kWatchedCount };

struct Link {
    std::string printer; // its name, in the ANSI code page
    const bool terminalServer = product::MachineIsTerminalServer();

    std::string databaseName{};
    std::string driver{}; // of the printer; empty: not known
    DatabaseHandle database = 0;
    HANDLE events[kWatchedCount] = {};
    KernelHandle onlyOne{}; // mutex: one printer side serves a printer
    MutexHold hold{};       // on it, while there is a connection
    bool lost = true;
    std::map<std::string, product::VariableInfo> known{}; // type and size of what was stored before
};

// Why there is no connection yet, in words; empty when there is one now.
std::string Connect(Link& link);
void Disconnect(Link& link);

// The value, or nothing: kDone and the service's answers of interface.h, or a positive code.
LONG ReadBytes(Link& link, const char* variable, Bytes* value);
LONG WriteBytes(Link& link, const char* variable, const void* value, DWORD size);
// Up to its NUL, or the value's end. Empty also when it cannot be read.
std::string ReadTextOf(Link& link, const char* variable);
// 0 also when it cannot be read.
DWORD ReadNumberOf(Link& link, const char* variable);
LONG InfoOf(Link& link, const char* variable, product::VariableInfo* info);

// A variable-length variable. kVariableExists: it was there.
LONG CreateQueue(Link& link, const char* variable, const void* value, DWORD size);

// Stores a value of the printer in the form that the variable has. kDone, an answer of the service, or a positive code.
LONG StoreValue(Link& link, const DeviceValue& value);

// Whether anybody waits for the answer of a request: who does has the event of the variable "RWResult".
bool SomebodyWaits(const Link& link);
