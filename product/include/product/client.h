// The client side of the status database service: the binding of the process, and a wrapper for each procedure that the
// library calls. The procedures and what they answer are told in interface.h.
//
// Every read of a value or of a write time goes through ReadVariable and GetWriteTime; nothing else may assume that it
// was a call.
#pragma once

#include "product/interface.h"
#include "product/status.h"

#include <windows.h>

// What a call gives: 0, an answer of the service (product::ServiceStatus), or the positive code of the RPC run-time or
// of the system when the call failed. A number space of its own; those that the library asks for have a name here.
enum class Answer : LONG {
    Done = product::kDone,
    DatabaseExists = product::kDatabaseExists,
    UnknownDatabase = product::kUnknownDatabase,
    BeingInitialised = product::kBeingInitialised,
    WrongSize = product::kWrongSize,
    BufferTooSmall = product::kBufferTooSmall,
    BadArgument = product::kBadArgument,
    AccessDenied = product::kAccessDenied,
    TimedOut = ERROR_TIMEOUT,
    InvalidBinding = RPC_S_INVALID_BINDING,
    ServerUnavailable = RPC_S_SERVER_UNAVAILABLE,
    CallFailed = RPC_S_CALL_FAILED,
    BadStubData = RPC_X_BAD_STUB_DATA,
};

// The one place where an answer becomes the status of an export.
constexpr Status PassOn(Answer answer) {
    return static_cast<Status>(answer);
}

// Names a database that the service has open for this process; 0 is none.
using DatabaseHandle = DWORD;

// The binding that every procedure uses. False when it cannot be made; the calls then answer InvalidBinding.
bool BindStatusDatabase();
void UnbindStatusDatabase();

// For a process that ends, until the next binding: its calls are not held up by a service that stands still. They have
// boundMs together and beyond that eachMs each, for as long as all are answered; once one was not, no more is made.
// Windows cannot bound a local call; there this bounds what LeftForCalls bounds.
void BoundCalls(DWORD boundMs, DWORD eachMs);
// How long a call that began now might take, for other waits that end with the service's answers: INFINITE while calls
// are not bounded, 0 once one was given up.
DWORD LeftForCalls();
bool CallsWereGivenUp();

// On failure *handle is 0. A call that finds no server has it restarted where that can be done, and is repeated: four
// calls at most.
Answer CreateDatabase(const char* name, DatabaseHandle* handle);
// Restarts the service where it is an ordinary process (Windows 95/98/Me), and says whether it did. The program that is
// linked with the client defines it.
bool RestartStatusService9x();
Answer OpenDatabase(const char* name, DatabaseHandle* handle);
Answer CloseDatabase(DatabaseHandle database);
// *instance is 0 on failure.
Answer GetServiceInstance(product::ServiceInstance* instance);
// *info is zero on failure.
Answer GetDatabaseInfo(DatabaseHandle database, product::DatabaseInfo* info);
Answer EndDatabaseInitialization(DatabaseHandle database);

// value null: size 0 is sent, whatever size says.
Answer CreateVariable(DatabaseHandle database, const char* name, product::DatabaseType type, DWORD size,
                      const void* value);
Answer WriteVariable(DatabaseHandle database, const char* name, const void* value, DWORD size);
// buffer null: only the stored size is asked, and *valueSize is 0 on failure. With a buffer, *valueSize is the stored
// size; the part of the buffer behind it is zero. On failure the buffer is untouched.
Answer ReadVariable(DatabaseHandle database, const char* name, void* buffer, DWORD size, DWORD* valueSize);
// members: names, each followed by ";".
Answer SetCompositeMembers(DatabaseHandle database, const char* name, const char* members);
// *info is of no use on failure.
Answer GetVariableInfo(DatabaseHandle database, const char* name, product::VariableInfo* info);
// When the variable was last written, UTC.
Answer GetWriteTime(DatabaseHandle database, const char* name, SYSTEMTIME* writeTime);
// How often the variable was written: two counts that differ have a write between them.
Answer GetWriteCount(DatabaseHandle database, const char* name, DWORD* writes);
// Has the variable's event pulsed at its writes (VariableEventName); each watch is ended once. A pulse reaches only
// those who wait at that moment, so whoever watches also looks, after the watch is set and from time to time.
Answer WatchVariable(DatabaseHandle database, const char* name, product::WatchMode mode);
Answer UnwatchVariable(DatabaseHandle database, const char* name);
// Has a request carried out at a printer: "ReadRequest:<printer>" and the like. The answer is the request's result.
Answer ForwardRequest(const char* request);
