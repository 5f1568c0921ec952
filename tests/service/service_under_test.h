// A small client of the service that puts its bodies together by itself.
#pragma once

#include "product/interface.h"
#include "product/object_names.h"
#include "status_service.h"

#include <gtest/gtest.h>

#include <string>

using namespace product; // NOLINT(google-build-using-namespace): all of these tests speak its language

DWORD U32At(const Bytes& bytes, size_t at);
inline Bytes operator+(Bytes bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

// A body from its parameters: numbers are u32, text is a string, Bytes are a byte array.
void AddTo(Bytes& body, DWORD value);
void AddTo(Bytes& body, std::string_view text);
void AddTo(Bytes& body, const Bytes& array);
template <typename... Parameters>
Bytes BodyOf(const Parameters&... parameters) {
    Bytes body;
    (AddTo(body, parameters), ...);
    return body;
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
inline LONG ForwardRequest(std::string_view request) {
    return Ask(kForwardRequest, BodyOf(request));
}

struct VariableRow {
    const char* name;
    DatabaseType type;
    Bytes value;
};

// A handle, and the calls that take one.
struct Database {
    Database() = default;
    // A new database with variables, ready. Fails the test when it cannot be made.
    explicit Database(std::string_view name, const std::vector<VariableRow>& variables = {});

    LONG Create(std::string_view name) { return Ask(kCreateDatabase, BodyOf(name), &handle, 4); }
    LONG Open(std::string_view name) { return Ask(kOpenDatabase, BodyOf(name), &handle, 4); }
    LONG Close() const { return Ask(kCloseDatabase, BodyOf(handle)); }
    LONG Info(DatabaseInfo* info) const { return Ask(kGetDatabaseInfo, BodyOf(handle), info, sizeof *info); }
    LONG EndInitialization() const { return Ask(kEndDatabaseInitialization, BodyOf(handle)); }

    using Name = std::string_view;
    LONG Add(Name name, DWORD type, const Bytes& value, DWORD reserved = 0) const;
    LONG Write(Name name, const Bytes& value) const;
    LONG Set(Name name, DWORD number) const { return Write(name, Number(number)); }
    // *buffer: the array that came back, size bytes. Either output may be null.
    LONG Read(Name name, DWORD size, Bytes* buffer, DWORD* valueSize = nullptr) const;
    LONG Compose(Name name, std::string_view list) const {
        return Ask(kSetCompositeMembers, BodyOf(handle, name, list));
    }
    LONG Info(Name name, VariableInfo* info) const {
        return Ask(kGetVariableInfo, BodyOf(handle, name), info, sizeof *info);
    }
    LONG Watch(Name name, DWORD mode) const { return Ask(kWatchVariable, BodyOf(handle, name, mode)); }
    LONG Unwatch(Name name) const { return Ask(kUnwatchVariable, BodyOf(handle, name)); }

    // These fail the test when the call does. The whole value is had by two calls: its size, its bytes.
    Bytes Value(Name name) const;
    DWORD NumberIn(Name name) const { return U32At(Value(name), 0); }
    VariableInfo Info(Name name) const;
    DWORD OpenHandles() const;

    DWORD handle = 0;
};

ULONGLONG Milliseconds(const SYSTEMTIME& time); // since 1601
