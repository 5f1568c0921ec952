#include "service_under_test.h"

#include <cstring>

namespace {

RPC_CLIENT_INTERFACE g_interface = {
    sizeof(RPC_CLIENT_INTERFACE), kInterfaceSyntax, kNdrSyntax, nullptr, 0, nullptr, 0, nullptr, 0};

RPC_CSTR RpcText(const char* text) {
    return reinterpret_cast<RPC_CSTR>(const_cast<char*>(text));
}

RPC_BINDING_HANDLE Binding() {
    static const RPC_BINDING_HANDLE binding = [] {
        RPC_CSTR text = nullptr;
        RPC_BINDING_HANDLE handle = nullptr;
        EXPECT_EQ(RpcStringBindingComposeA(nullptr, RpcText(kProtocolSequence), nullptr, RpcText(kEndpoint),
                                           RpcText(kBindingOptions), &text),
                  RPC_S_OK);
        EXPECT_EQ(RpcBindingFromStringBindingA(text, &handle), RPC_S_OK);
        RpcStringFreeA(&text);
        return handle;
    }();
    return binding;
}

} // namespace

DWORD U32At(const Bytes& bytes, size_t at) {
    if (at + 4 > bytes.size()) return 0xFFFFFFFF;
    return bytes[at] | bytes[at + 1] << 8u | bytes[at + 2] << 16u | DWORD{bytes[at + 3]} << 24u;
}

void AddTo(Bytes& body, DWORD value) {
    body = body + Number(value);
}

void AddTo(Bytes& body, const Bytes& array) {
    body = body + Number(static_cast<DWORD>(array.size())) + array;
    body.resize((body.size() + 3) / 4 * 4);
}

void AddTo(Bytes& body, std::string_view text) {
    AddTo(body, static_cast<DWORD>(text.size() + 1));
    AddTo(body, DWORD{0});
    AddTo(body, BytesOf(text)); // its count is the text's actual count
}

RawReply CallRaw(UINT procedure, const Bytes& body) {
    RPC_MESSAGE message = {};
    message.Handle = Binding();
    message.RpcInterfaceInformation = &g_interface;
    message.ProcNum = procedure;
    message.BufferLength = static_cast<unsigned int>(body.size());
    message.DataRepresentation = 0x10;
    RawReply reply;
    reply.fault = I_RpcGetBuffer(&message);
    if (reply.fault != RPC_S_OK) return reply;
    if (!body.empty()) std::memcpy(message.Buffer, body.data(), body.size());
    reply.fault = I_RpcSendReceive(&message);
    if (reply.fault != RPC_S_OK) return reply;
    EXPECT_EQ(message.DataRepresentation & 0xFF, 0x10u);
    const auto* bytes = static_cast<unsigned char*>(message.Buffer);
    reply.body.assign(bytes, bytes + message.BufferLength);
    I_RpcFreeBuffer(&message);
    return reply;
}

LONG Ask(UINT procedure, const Bytes& body, void* out, size_t size) {
    const RawReply reply = CallRaw(procedure, body);
    if (reply.fault != RPC_S_OK) return reply.fault;
    EXPECT_EQ(reply.body.size(), size + 4) << "procedure " << procedure;
    if (reply.body.size() != size + 4) return -1;
    if (size > 0) std::memcpy(out, reply.body.data(), size);
    return static_cast<LONG>(U32At(reply.body, size));
}

Database::Database(std::string_view name, const std::vector<VariableRow>& variables) {
    EXPECT_EQ(Create(name), kDone);
    for (const VariableRow& row : variables)
        EXPECT_EQ(Add(row.name, row.type, row.value), kDone) << row.name;
    EXPECT_EQ(EndInitialization(), kDone);
}

LONG Database::Add(Name name, DWORD type, const Bytes& value, DWORD reserved) const {
    return Ask(kCreateVariable, BodyOf(handle, name, type, static_cast<DWORD>(value.size()), reserved, value));
}

LONG Database::Write(Name name, const Bytes& value) const {
    return Ask(kWriteVariable, BodyOf(handle, name, value, static_cast<DWORD>(value.size())));
}

LONG Database::Read(Name name, DWORD size, Bytes* buffer, DWORD* valueSize) const {
    Bytes out(4 + (size + 3) / 4 * 4 + 4);
    const LONG status = Ask(kReadVariable, BodyOf(handle, name, size), out.data(), out.size());
    if (status > 0) return status;
    EXPECT_EQ(U32At(out, 0), size);
    if (buffer) buffer->assign(out.begin() + 4, out.begin() + 4 + size);
    if (valueSize) *valueSize = U32At(out, out.size() - 4);
    return status;
}

Bytes Database::Value(Name name) const {
    DWORD size = 0;
    Bytes value;
    EXPECT_EQ(Read(name, 0, nullptr, &size), kDone) << name;
    EXPECT_EQ(Read(name, size, &value, &size), kDone) << name;
    return value;
}

VariableInfo Database::Info(Name name) const {
    VariableInfo info = {};
    EXPECT_EQ(Info(name, &info), kDone) << name;
    return info;
}

DWORD Database::OpenHandles() const {
    DatabaseInfo info = {};
    EXPECT_EQ(Info(&info), kDone);
    return info.openHandles;
}

ULONGLONG Milliseconds(const SYSTEMTIME& time) {
    FILETIME file = {};
    EXPECT_TRUE(SystemTimeToFileTime(&time, &file));
    return (ULONGLONG{file.dwHighDateTime} << 32 | file.dwLowDateTime) / 10000;
}
