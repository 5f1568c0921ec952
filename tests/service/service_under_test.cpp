#include "service_under_test.h"

#include "private_machine.h"

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

// A call: its request is written first, then Send, then its reply is read.
class Call {
public:
    Call(UINT procedure, ULONGLONG size) {
        m_message.Handle = Binding();
        m_message.RpcInterfaceInformation = &g_interface;
        m_message.ProcNum = procedure;
        m_message.BufferLength = static_cast<unsigned int>(size);
        m_message.DataRepresentation = 0x10;
        m_fault = I_RpcGetBuffer(&m_message);
        m_held = m_fault == RPC_S_OK;
    }
    ~Call() {
        if (m_held) I_RpcFreeBuffer(&m_message);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    NdrWriter Request() { return m_held ? NdrWriter{m_message.Buffer, m_message.BufferLength} : NdrWriter{nullptr, 0}; }
    RPC_STATUS Send() {
        if (!m_held) return m_fault;
        m_fault = I_RpcSendReceive(&m_message);
        m_held = m_fault == RPC_S_OK;
        return m_fault;
    }
    NdrReader Reply() { return {m_message.Buffer, m_message.BufferLength, m_message.DataRepresentation}; }
    RPC_MESSAGE& Message() { return m_message; }

private:
    RPC_MESSAGE m_message = {};
    RPC_STATUS m_fault;
    bool m_held;
};

// Writes the request, sends it, and lets the reply's out parameters be read before its status.
template <typename Write, typename Read>
LONG Exchange(UINT procedure, ULONGLONG size, Write write, Read read) {
    Call call(procedure, size);
    NdrWriter request = call.Request();
    write(request);
    const RPC_STATUS fault = call.Send();
    if (fault != RPC_S_OK) return fault;
    EXPECT_TRUE(request.Good());
    NdrReader reply = call.Reply();
    read(reply);
    const LONG status = reply.Status();
    EXPECT_TRUE(reply.Good()) << "procedure " << procedure;
    return status;
}

void ReadNothing(NdrReader&) {}

LONG ExchangeName(Procedure procedure, std::string_view name, DWORD* handle) {
    return Exchange(
        procedure, NdrTextSize(name), [&](NdrWriter& request) { request.Text(name); },
        [&](NdrReader& reply) { *handle = reply.U32(); });
}

LONG ExchangeHandle(Procedure procedure, DWORD handle) {
    return Exchange(
        procedure, kNdrU32Size, [&](NdrWriter& request) { request.U32(handle); }, ReadNothing);
}

} // namespace

DWORD ServiceState() {
    const SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, GENERIC_READ);
    const SC_HANDLE service = manager ? OpenServiceA(manager, kServiceName, SERVICE_QUERY_STATUS) : nullptr;
    SERVICE_STATUS status = {};
    status.dwCurrentState = SERVICE_STOPPED;
    if (service) QueryServiceStatus(service, &status);
    if (service) CloseServiceHandle(service);
    if (manager) CloseServiceHandle(manager);
    return status.dwCurrentState;
}

Service::Service() : process(TestProcess::Program(ProgramPath("TVSDBN.EXE"))) {
    EXPECT_TRUE(WaitUntil([] { return ServiceState() == SERVICE_RUNNING; }, 20000)) << process.Errors();
}

Bytes BytesOf(std::string_view text) {
    Bytes bytes(text.begin(), text.end());
    bytes.push_back(0);
    return bytes;
}

Bytes Number(DWORD value) {
    Bytes bytes(4);
    std::memcpy(bytes.data(), &value, 4);
    return bytes;
}

RawReply CallRaw(UINT procedure, const Bytes& body) {
    Call call(procedure, body.size());
    RawReply reply;
    if (!body.empty() && call.Message().Buffer) std::memcpy(call.Message().Buffer, body.data(), body.size());
    reply.fault = call.Send();
    if (reply.fault != RPC_S_OK) return reply;
    const auto* bytes = static_cast<unsigned char*>(call.Message().Buffer);
    reply.body.assign(bytes, bytes + call.Message().BufferLength);
    reply.representation = call.Message().DataRepresentation;
    return reply;
}

LONG CreateDatabase(std::string_view name, DWORD* handle) {
    return ExchangeName(kCreateDatabase, name, handle);
}

LONG OpenDatabase(std::string_view name, DWORD* handle) {
    return ExchangeName(kOpenDatabase, name, handle);
}

LONG CloseDatabase(DWORD handle) {
    return ExchangeHandle(kCloseDatabase, handle);
}

LONG EndDatabaseInitialization(DWORD handle) {
    return ExchangeHandle(kEndDatabaseInitialization, handle);
}

LONG GetDatabaseInfo(DWORD handle, DatabaseInfo* info) {
    return Exchange(
        kGetDatabaseInfo, kNdrU32Size, [&](NdrWriter& request) { request.U32(handle); },
        [&](NdrReader& reply) { *info = reply.ReadDatabaseInfo(); });
}

LONG CreateVariable(DWORD handle, std::string_view name, DWORD type, const Bytes& value, DWORD reserved) {
    const DWORD size = static_cast<DWORD>(value.size());
    return Exchange(
        kCreateVariable, 4 * kNdrU32Size + NdrTextSize(name) + NdrBytesSize(size),
        [&](NdrWriter& request) {
            request.U32(handle);
            request.Text(name);
            request.U32(type);
            request.U32(size);
            request.U32(reserved);
            request.Bytes(value.data(), size);
        },
        ReadNothing);
}

LONG WriteVariable(DWORD handle, std::string_view name, const Bytes& value) {
    const DWORD size = static_cast<DWORD>(value.size());
    return Exchange(
        kWriteVariable, 2 * kNdrU32Size + NdrTextSize(name) + NdrBytesSize(size),
        [&](NdrWriter& request) {
            request.U32(handle);
            request.Text(name);
            request.Bytes(value.data(), size);
            request.U32(size);
        },
        ReadNothing);
}

LONG ReadVariable(DWORD handle, std::string_view name, DWORD size, Bytes* buffer, DWORD* valueSize) {
    return Exchange(
        kReadVariable, 2 * kNdrU32Size + NdrTextSize(name),
        [&](NdrWriter& request) {
            request.U32(handle);
            request.Text(name);
            request.U32(size);
        },
        [&](NdrReader& reply) {
            const NdrBytes bytes = reply.Bytes();
            EXPECT_EQ(bytes.size, size);
            if (buffer) buffer->assign(bytes.data, bytes.data + bytes.size);
            const DWORD told = reply.U32();
            if (valueSize) *valueSize = told;
        });
}

LONG SetCompositeMembers(DWORD handle, std::string_view composite, std::string_view list) {
    return Exchange(
        kSetCompositeMembers, kNdrU32Size + NdrTextSize(composite) + NdrTextSize(list),
        [&](NdrWriter& request) {
            request.U32(handle);
            request.Text(composite);
            request.Text(list);
        },
        ReadNothing);
}

LONG GetVariableInfo(DWORD handle, std::string_view name, VariableInfo* info) {
    return Exchange(
        kGetVariableInfo, kNdrU32Size + NdrTextSize(name),
        [&](NdrWriter& request) {
            request.U32(handle);
            request.Text(name);
        },
        [&](NdrReader& reply) { *info = reply.ReadVariableInfo(); });
}

LONG WatchVariable(DWORD handle, std::string_view name, DWORD mode) {
    return Exchange(
        kWatchVariable, 2 * kNdrU32Size + NdrTextSize(name),
        [&](NdrWriter& request) {
            request.U32(handle);
            request.Text(name);
            request.U32(mode);
        },
        ReadNothing);
}

LONG UnwatchVariable(DWORD handle, std::string_view name) {
    return Exchange(
        kUnwatchVariable, kNdrU32Size + NdrTextSize(name),
        [&](NdrWriter& request) {
            request.U32(handle);
            request.Text(name);
        },
        ReadNothing);
}

LONG ForwardRequest(std::string_view text) {
    return Exchange(
        kForwardRequest, NdrTextSize(text), [&](NdrWriter& request) { request.Text(text); }, ReadNothing);
}

DWORD ReadyDatabase(std::string_view name, const std::vector<VariableRow>& variables) {
    DWORD handle = 0;
    EXPECT_EQ(CreateDatabase(name, &handle), kDone);
    for (const VariableRow& row : variables)
        EXPECT_EQ(CreateVariable(handle, row.name, row.type, row.value), kDone) << row.name;
    EXPECT_EQ(EndDatabaseInitialization(handle), kDone);
    return handle;
}

Bytes ValueOf(DWORD handle, std::string_view name) {
    DWORD size = 0;
    Bytes value;
    EXPECT_EQ(ReadVariable(handle, name, 0, nullptr, &size), kDone) << name;
    EXPECT_EQ(ReadVariable(handle, name, size, &value, &size), kDone) << name;
    return value;
}

HANDLE WatchEvent(std::string_view database, std::string_view variable, VariableSignal signal) {
    SECURITY_DESCRIPTOR descriptor;
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE);
    SECURITY_ATTRIBUTES everyone{sizeof everyone, &descriptor, FALSE};
    // The emulated system is one with Terminal Services unless a test says otherwise.
    const HANDLE event = CreateEventA(&everyone, TRUE, FALSE, VariableEventName(true, database, variable, signal).text);
    EXPECT_NE(event, nullptr);
    return event;
}

ULONGLONG Milliseconds(const SYSTEMTIME& time) {
    FILETIME file = {};
    EXPECT_TRUE(SystemTimeToFileTime(&time, &file));
    return (ULONGLONG{file.dwHighDateTime} << 32 | file.dwLowDateTime) / 10000;
}
