// The connection of a printer side with the status database service: the printer's database, its watches, and the
// events that signal requests. State: the Link record.
//
// A call that fails because the service has gone, or is a new one that does not know our handle, marks the link as
// lost. So a caller makes its calls and tests `lost` once at the end.
#pragma once

#include "device.h"

#include "product/client.h"
#include "product/guards.h"
#include "product/object_names.h"
#include "product/published_mapping.h"

#include <map>
#include <string>

// The watched variables, in the order of their events.
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
    product::PublishedValues published{};                 // of the database, where it has them: reads need no call
};

// Connects. Empty, or the reason in words why there is no connection yet.
std::string Connect(Link& link);
void Disconnect(Link& link);

// Marks a link as lost whose service does not know the database any more. Reads notice only that the service has ended.
void AskService(Link& link);

// Reads the whole value. kDone, an answer of the service (product/interface.h), or a positive code.
LONG ReadBytes(Link& link, const char* variable, Bytes* value);
LONG WriteBytes(Link& link, const char* variable, const void* value, DWORD size);
// The text up to its NUL or the value's end. Also empty when it cannot be read.
std::string ReadTextOf(Link& link, const char* variable);
// Also 0 when it cannot be read.
DWORD ReadNumberOf(Link& link, const char* variable);
LONG InfoOf(Link& link, const char* variable, product::VariableInfo* info);

// Makes a variable-length variable. kVariableExists: it is there already.
LONG CreateQueue(Link& link, const char* variable, const void* value, DWORD size);

// Makes a record. kVariableExists: it is there already.
LONG CreateRecord(Link& link, const char* variable, const void* value, DWORD size);

// Stores a value of the printer in the form that the variable has. kDone, an answer of the service, or a positive code.
LONG StoreValue(Link& link, const DeviceValue& value);

// Whether anybody watches the variable: a watcher has its event open.
bool IsWatched(Link& link, const char* variable);
// Whether any process has that event of the variable open, for whatever it is.
bool HasEvent(const Link& link, const char* variable, product::VariableSignal signal);
// Whether anybody waits for the answer to a request, in "RWResult".
bool SomebodyWaits(Link& link);
