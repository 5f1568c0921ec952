// A small client of the service that puts its bodies together by itself.
#pragma once

#include "product/interface.h"
#include "product/object_names.h"
#include "status_service.h"

#include <gtest/gtest.h>

#include <string>

using namespace product; // NOLINT(google-build-using-namespace): all of these tests speak its language

DWORD U32At(const Bytes& bytes, size_t at);

// A body from its parameters: numbers are u32, text is a string, Bytes are a byte array.
struct Body {
    Bytes bytes;

    void Add(DWORD value);
    void Add(std::string_view text);
    void Add(const Bytes& array);
    void AddPadded(const Bytes& more);
};
template <typename... Parameters>
Bytes BodyOf(const Parameters&... parameters) {
    Body body;
    (body.Add(parameters), ...);
    return body.bytes;
}

// One call with a body as it is. fault: what the run-time says; the rest is the reply.
struct RawReply {
    RPC_STATUS fault = RPC_S_OK;
    Bytes body;
};
RawReply CallRaw(UINT procedure, const Bytes& body);

// One call; its status, or the run-time's positive code. What the reply holds before the status is copied to *out,
// which must be as long.
LONG Ask(UINT procedure, const Bytes& body, void* out = nullptr, size_t size = 0);

inline LONG CreateDatabase(std::string_view name, DWORD* handle) {
    return Ask(kCreateDatabase, BodyOf(name), handle, 4);
}
inline LONG OpenDatabase(std::string_view name, DWORD* handle) {
    return Ask(kOpenDatabase, BodyOf(name), handle, 4);
}
inline LONG CloseDatabase(DWORD handle) {
    return Ask(kCloseDatabase, BodyOf(handle));
}
inline LONG GetDatabaseInfo(DWORD handle, DatabaseInfo* info) {
    return Ask(kGetDatabaseInfo, BodyOf(handle), info, sizeof *info);
}
inline LONG EndDatabaseInitialization(DWORD handle) {
    return Ask(kEndDatabaseInitialization, BodyOf(handle));
}
inline LONG CreateVariable(DWORD handle, std::string_view name, DWORD type, const Bytes& value, DWORD reserved = 0) {
    return Ask(kCreateVariable, BodyOf(handle, name, type, static_cast<DWORD>(value.size()), reserved, value));
}
inline LONG WriteVariable(DWORD handle, std::string_view name, const Bytes& value) {
    return Ask(kWriteVariable, BodyOf(handle, name, value, static_cast<DWORD>(value.size())));
}
// *buffer: the array that came back, size bytes. Either output may be null.
LONG ReadVariable(DWORD handle, std::string_view name, DWORD size, Bytes* buffer, DWORD* valueSize = nullptr);
inline LONG SetCompositeMembers(DWORD handle, std::string_view composite, std::string_view list) {
    return Ask(kSetCompositeMembers, BodyOf(handle, composite, list));
}
inline LONG GetVariableInfo(DWORD handle, std::string_view name, VariableInfo* info) {
    return Ask(kGetVariableInfo, BodyOf(handle, name), info, sizeof *info);
}
inline LONG WatchVariable(DWORD handle, std::string_view name, DWORD mode) {
    return Ask(kWatchVariable, BodyOf(handle, name, mode));
}
inline LONG UnwatchVariable(DWORD handle, std::string_view name) {
    return Ask(kUnwatchVariable, BodyOf(handle, name));
}
inline LONG ForwardRequest(std::string_view request) {
    return Ask(kForwardRequest, BodyOf(request));
}

// A database with variables, ready; or what became of it, as a failure of the test.
struct VariableRow {
    const char* name;
    DatabaseType type;
    Bytes value;
};
DWORD ReadyDatabase(std::string_view name, const std::vector<VariableRow>& variables);
// The whole value by two calls: its size, its bytes. Fails the test when one does.
Bytes ValueOf(DWORD handle, std::string_view name);
ULONGLONG Milliseconds(const SYSTEMTIME& time); // since 1601
