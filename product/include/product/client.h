// The client side of the status database service: the binding of the process, and a stub for each procedure.
// interface.h says what each procedure does and answers. State: the binding and the bound on calls, in client.cpp.
// After the binding any thread may call.
//
// These are calls. Reads that need none go through the published values (published_values.h).
#pragma once

#include "product/interface.h"
#include "product/object_names.h"
#include "product/status.h"

#include <windows.h>

// The outcome of a call: 0, an answer of the service (product::ServiceStatus), or the positive code of the RPC run-time
// or of the system when the call failed. A number space of its own; the values that the library tests have a name here.
enum class Answer : LONG {
    Done = product::kDone,
    DatabaseExists = product::kDatabaseExists,
    UnknownDatabase = product::kUnknownDatabase,
    BeingInitialised = product::kBeingInitialised,
    WrongSize = product::kWrongSize,
    BufferTooSmall = product::kBufferTooSmall,
    BadArgument = product::kBadArgument,
    UnknownVariable = product::kUnknownVariable,
    NotWritable = product::kNotWritable,
    AccessDenied = product::kAccessDenied,
    TimedOut = ERROR_TIMEOUT,
    InvalidBinding = RPC_S_INVALID_BINDING,
    ServerUnavailable = RPC_S_SERVER_UNAVAILABLE,
    CallFailed = RPC_S_CALL_FAILED,
    BadStubData = RPC_X_BAD_STUB_DATA,
    NoSuchProcedure = RPC_S_PROCNUM_OUT_OF_RANGE,
    NotInTime = RPC_S_CALL_CANCELLED,
};

// The one place where an answer becomes the status of an export.
constexpr Status PassOn(Answer answer) {
    return static_cast<Status>(answer);
}

// A database that the service has open for this process; 0: none.
using DatabaseHandle = DWORD;

// Makes the binding that every call uses. False: it cannot be made, and the calls answer InvalidBinding.
bool BindStatusDatabase();
void UnbindStatusDatabase();

// How long the service may take to answer any call but ForwardRequest, in milliseconds; NotInTime after that. The
// service may have been stopped; it may carry the call out all the same. A forwarded request lasts as long as the
// printer needs, and the service answers it when the printer side ends. Windows cannot bound a local call.
inline constexpr DWORD kAnswerBound = 60000; // as long as nobody sets another
void LimitAnswers(DWORD boundMs);

// For a process that ends, until the next binding: a service that hangs must not block its calls. They have boundMs
// together, and eachMs each beyond that. After the first call that is not answered in time no more calls are made.
// Windows cannot bound a local call; there only other waits are bounded, by LeftForCalls.
void BoundCalls(DWORD boundMs, DWORD eachMs);
// How long a call that begins now may take, in milliseconds; for other waits that depend on the service. INFINITE while
// calls are not bounded, 0 after one timed out.
DWORD LeftForCalls();
bool CallsWereGivenUp();

// On failure *handle is 0. A call that finds no server restarts it where that is possible and is repeated: four calls
// at most.
Answer CreateDatabase(const char* name, DatabaseHandle* handle);
// Restarts the service where it is an ordinary process (Windows 95/98/Me); true when it did. The program that links the
// client defines it.
bool RestartStatusService9x();
Answer OpenDatabase(const char* name, DatabaseHandle* handle);

// Where the values of a database are published; names are empty when nowhere.
struct PublishedPlace {
    product::KernelName section;
    DWORD size;
    product::KernelName life;
};
struct EnteredDatabase {
    DatabaseHandle handle;
    bool created; // the caller initialises it
    product::ServiceInstance instance;
    PublishedPlace place;
};
// Opens the database, or creates it, restarting the service as CreateDatabase does. By the single calls where the
// service has no such procedure. *entered is empty on failure.
Answer EnterDatabase(const char* name, EnteredDatabase* entered);
// The same of the database that has the printer list, and with it the printer's where the list has one that is ready.
// Else, and where the service has no such procedure, its handle is 0.
struct EnteredPrinter {
    EnteredDatabase master;
    EnteredDatabase printer;
    char name[32]; // of its database (PrinterListEntry.databaseName)
};
Answer EnterPrinter(const char* printer, EnteredPrinter* entered);
Answer CloseDatabase(DatabaseHandle database);
// Closes both, by one call where the service has it; 0 is not closed.
Answer CloseDatabases(DatabaseHandle first, DatabaseHandle second);
// *instance is 0 on failure.
Answer GetServiceInstance(product::ServiceInstance* instance);
// *info is zero on failure.
Answer GetDatabaseInfo(DatabaseHandle database, product::DatabaseInfo* info);
Answer EndDatabaseInitialization(DatabaseHandle database);

// value null: size is ignored, and 0 is sent.
Answer CreateVariable(DatabaseHandle database, const char* name, product::DatabaseType type, DWORD size,
                      const void* value);
// variables: in the form of interface.h. NoSuchProcedure: make them one by one.
Answer CreateVariables(DatabaseHandle database, const BYTE* variables, DWORD size);
Answer WriteVariable(DatabaseHandle database, const char* name, const void* value, DWORD size);
// *valueSize: the stored size. buffer null: asks only for that size; on failure *valueSize is 0. With a buffer, the
// rest of the buffer behind the value is zero. On failure the buffer is untouched.
Answer ReadVariable(DatabaseHandle database, const char* name, void* buffer, DWORD size, DWORD* valueSize);
// Done, AccessDenied or NotWritable.
Answer MayWrite(DatabaseHandle database, const char* name);
// members: names, each followed by ";".
Answer SetCompositeMembers(DatabaseHandle database, const char* name, const char* members);
// *info is untouched on failure.
Answer GetVariableInfo(DatabaseHandle database, const char* name, product::VariableInfo* info);
// When the variable was last written, UTC.
Answer GetWriteTime(DatabaseHandle database, const char* name, SYSTEMTIME* writeTime);
// How often the variable was written, wrapping.
Answer GetWriteCount(DatabaseHandle database, const char* name, DWORD* writes);
// Has the variable's event (VariableEventName) pulsed at its writes. Each watch is ended once. A pulse wakes only those
// who wait at that moment, so a watcher also checks after it has set the watch, and from time to time.
Answer WatchVariable(DatabaseHandle database, const char* name, product::WatchMode mode);
Answer UnwatchVariable(DatabaseHandle database, const char* name);
// *place is empty on failure.
Answer FindPublishedValues(DatabaseHandle database, PublishedPlace* place);
// Has "ReadRequest:<printer>" or the like carried out at a printer. The answer is the request's result.
Answer ForwardRequest(const char* request);
