// The real service in the test's private machine, and calls to it as its own stubs would make them.
#pragma once

#include "dblink/kernel_names.h"
#include "dblink/ndr.h"
#include "test_process.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

using namespace dblink; // NOLINT(google-build-using-namespace): all of these tests speak its language

// What the service manager says of the service: SERVICE_STOPPED when it is not there.
DWORD ServiceState();

// A started service, serving when the constructor returns. Killed with the test, unless it is stopped before.
struct Service {
    Service();
    TestProcess process;
};

using Bytes = std::vector<unsigned char>;
Bytes BytesOf(std::string_view text); // with its NUL
Bytes Number(DWORD value);

// One call with a body as it is. fault: what the run-time says; the rest is the reply.
struct RawReply {
    RPC_STATUS fault = RPC_S_OK;
    DWORD representation = 0;
    Bytes body;
};
RawReply CallRaw(UINT procedure, const Bytes& body);

// The procedures. Each gives the service's status, or the run-time's positive code.
LONG CreateDatabase(std::string_view name, DWORD* handle);
LONG OpenDatabase(std::string_view name, DWORD* handle);
LONG CloseDatabase(DWORD handle);
LONG GetDatabaseInfo(DWORD handle, DatabaseInfo* info);
LONG EndDatabaseInitialization(DWORD handle);
LONG CreateVariable(DWORD handle, std::string_view name, DWORD type, const Bytes& value, DWORD reserved = 0);
LONG WriteVariable(DWORD handle, std::string_view name, const Bytes& value);
// *buffer: the array that came back; *valueSize may be null.
LONG ReadVariable(DWORD handle, std::string_view name, DWORD size, Bytes* buffer, DWORD* valueSize = nullptr);
LONG SetCompositeMembers(DWORD handle, std::string_view composite, std::string_view list);
LONG GetVariableInfo(DWORD handle, std::string_view name, VariableInfo* info);
LONG WatchVariable(DWORD handle, std::string_view name, DWORD mode);
LONG UnwatchVariable(DWORD handle, std::string_view name);
LONG ForwardRequest(std::string_view request);

// A database with variables, ready; or what became of it, as a failure of the test.
struct VariableRow {
    const char* name;
    DatabaseType type;
    Bytes value;
};
DWORD ReadyDatabase(std::string_view name, const std::vector<VariableRow>& variables);
// The whole value by two calls: its size, its bytes. Fails the test when one does.
Bytes ValueOf(DWORD handle, std::string_view name);

// The watch event of a variable, created as a watcher would.
HANDLE WatchEvent(std::string_view database, std::string_view variable, VariableSignal signal);
// Milliseconds since 1601.
ULONGLONG Milliseconds(const SYSTEMTIME& time);
