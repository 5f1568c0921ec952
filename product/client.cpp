// The binding is the only state.
#include "product/client.h"

#include "product/ndr.h"

#include <atomic>
#include <string.h>
#include <string_view>

namespace {

using namespace product;

RPC_BINDING_HANDLE g_binding;
RPC_CSTR g_stringBinding;
RPC_CLIENT_INTERFACE g_interface;

// Of a process that ends.
struct CallBound {
    DWORD start; // tick count
    DWORD boundMs;
    DWORD eachMs;
};
CallBound g_bound;
std::atomic<bool> g_isBounded;
std::atomic<bool> g_gaveUp;

// False when no call is made any more. Several threads may set the limit at once, to nearly the same.
bool LimitCall() {
    if (!g_isBounded.load()) return true;
    if (g_gaveUp.load()) return false;
    RpcBindingSetOption(g_binding, RPC_C_OPT_CALL_TIMEOUT, LeftForCalls());
    return true;
}

RPC_STATUS NoteResult(RPC_STATUS result) {
    if (result == RPC_S_CALL_CANCELLED) g_gaveUp = true;
    return result;
}

// The label of the local form: little-endian integers, ASCII characters.
constexpr ULONG kLocalRepresentation = 0x10;

// CreateDatabase, the first call of an open, is the one that may find the service gone.
constexpr int kCallsWithRestart = 4;

RPC_CSTR Text(const char* text) {
    return reinterpret_cast<RPC_CSTR>(const_cast<char*>(text));
}

// One call: the request is marshalled straight into the run-time's buffer, the reply read straight from it.
//
//     Call call(kProcedure, size of the body);
//     call.request.U32(...);
//     if (!call.Send()) return call.Failure();
//     ... = call.reply.U32();
//     return call.Status();
class Call {
public:
    Call(Procedure procedure, ULONGLONG bodySize)
        : m_message(), m_result(GetBuffer(procedure, bodySize)),
          request(m_message.Buffer, m_result == RPC_S_OK ? m_message.BufferLength : 0) {}
    ~Call() {
        if (m_message.Buffer != nullptr) I_RpcFreeBuffer(&m_message);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    bool Send() {
        if (m_result != RPC_S_OK) return false;
        if (!request.Good()) { // the body was larger than it was said to be
            m_result = RPC_X_BAD_STUB_DATA;
            return false;
        }
        m_result = NoteResult(I_RpcSendReceive(&m_message));
        if (m_result != RPC_S_OK) {
            m_message.Buffer = nullptr; // the run-time has taken it back
            return false;
        }
        reply = NdrReader(m_message.Buffer, m_message.BufferLength, m_message.DataRepresentation);
        return true;
    }

    // Why there is no reply. A code of the run-time is positive; so is an exception of the server, or it is none.
    Answer Failure() const { return m_result > 0 ? static_cast<Answer>(m_result) : Answer::BadStubData; }

    // The status, the last word of every reply. A reply that cannot be read as what it should be is a failed call.
    Answer Status() {
        const LONG status = reply.Status();
        return reply.Good() ? static_cast<Answer>(status) : Answer::BadStubData;
    }

private:
    RPC_STATUS GetBuffer(Procedure procedure, ULONGLONG bodySize) {
        if (g_binding == nullptr) return RPC_S_INVALID_BINDING;
        if (bodySize > kBodySizeMax) return RPC_S_OUT_OF_MEMORY; // the run-time carries no longer body
        if (!LimitCall()) return RPC_S_CALL_CANCELLED;
        m_message.Handle = g_binding;
        m_message.DataRepresentation = kLocalRepresentation;
        m_message.BufferLength = static_cast<unsigned int>(bodySize);
        m_message.ProcNum = procedure;
        m_message.RpcInterfaceInformation = &g_interface;
        const RPC_STATUS result = NoteResult(I_RpcGetBuffer(&m_message));
        if (result != RPC_S_OK) m_message.Buffer = nullptr;
        return result;
    }

    RPC_MESSAGE m_message;
    RPC_STATUS m_result;

public:
    NdrWriter request;
    NdrReader reply{nullptr, 0, kLocalRepresentation};
};

Answer CallWithName(Procedure procedure, std::string_view name, DatabaseHandle* handle) {
    *handle = 0; // what is not open must not be closed
    Call call(procedure, NdrTextSize(name));
    call.request.Text(name);
    if (!call.Send()) return call.Failure();
    const DWORD opened = call.reply.U32();
    const Answer answer = call.Status();
    if (answer == Answer::Done) *handle = opened;
    return answer;
}

Answer CallWithHandle(Procedure procedure, DatabaseHandle database) {
    Call call(procedure, kNdrU32Size);
    call.request.U32(database);
    return call.Send() ? call.Status() : call.Failure();
}

} // namespace

void BoundCalls(DWORD boundMs, DWORD eachMs) {
    g_bound = {GetTickCount(), boundMs, eachMs};
    g_isBounded = true;
}

DWORD LeftForCalls() {
    if (!g_isBounded.load()) return INFINITE;
    if (g_gaveUp.load()) return 0;
    const DWORD spent = GetTickCount() - g_bound.start;
    const DWORD left = spent < g_bound.boundMs ? g_bound.boundMs - spent : 0;
    return left > g_bound.eachMs ? left : g_bound.eachMs;
}

bool CallsWereGivenUp() {
    return g_gaveUp.load();
}

bool BindStatusDatabase() {
    g_isBounded = g_gaveUp = false;
    g_interface = {};
    g_interface.Length = sizeof g_interface;
    g_interface.InterfaceId = kInterfaceSyntax;
    g_interface.TransferSyntax = kNdrSyntax;
    if (RpcStringBindingComposeA(nullptr, Text(kProtocolSequence), nullptr, Text(kEndpoint), Text(kBindingOptions),
                                 &g_stringBinding) != RPC_S_OK)
        return false;
    return RpcBindingFromStringBindingA(g_stringBinding, &g_binding) == RPC_S_OK;
}

void UnbindStatusDatabase() {
    if (g_stringBinding != nullptr) RpcStringFreeA(&g_stringBinding);
    if (g_binding != nullptr) RpcBindingFree(&g_binding);
    g_stringBinding = nullptr;
    g_binding = nullptr;
}

Answer CreateDatabase(const char* name, DatabaseHandle* handle) {
    // The fourth failure too is followed by a restart, so that the next open finds a server.
    Answer answer = Answer::ServerUnavailable;
    for (int i = 0; i < kCallsWithRestart; ++i) {
        answer = CallWithName(kCreateDatabase, name, handle);
        if (answer != Answer::ServerUnavailable || !RestartStatusService9x()) break;
    }
    return answer;
}

Answer OpenDatabase(const char* name, DatabaseHandle* handle) {
    return CallWithName(kOpenDatabase, name, handle);
}

Answer CloseDatabase(DatabaseHandle database) {
    return CallWithHandle(kCloseDatabase, database);
}

Answer GetServiceInstance(ServiceInstance* instance) {
    *instance = 0;
    Call call(kGetServiceInstance, 0);
    if (!call.Send()) return call.Failure();
    const DWORD low = call.reply.U32();
    const DWORD high = call.reply.U32();
    const Answer answer = call.Status();
    if (answer == Answer::Done) *instance = ServiceInstance{high} << 32 | low;
    return answer;
}

Answer GetDatabaseInfo(DatabaseHandle database, DatabaseInfo* info) {
    *info = {};
    Call call(kGetDatabaseInfo, kNdrU32Size);
    call.request.U32(database);
    if (!call.Send()) return call.Failure();
    const DatabaseInfo read = call.reply.ReadDatabaseInfo();
    const Answer answer = call.Status();
    if (answer == Answer::Done) *info = read;
    return answer;
}

Answer EndDatabaseInitialization(DatabaseHandle database) {
    return CallWithHandle(kEndDatabaseInitialization, database);
}

Answer CreateVariable(DatabaseHandle database, const char* name, DatabaseType type, DWORD size, const void* value) {
    const std::string_view nameText = name;
    if (value == nullptr) size = 0;
    Call call(kCreateVariable, kNdrU32Size * 4 + NdrTextSize(nameText) + NdrBytesSize(size));
    call.request.U32(database);
    call.request.Text(nameText);
    call.request.U32(type);
    call.request.U32(size);
    call.request.U32(0); // reserved
    call.request.Bytes(value, size);
    return call.Send() ? call.Status() : call.Failure();
}

Answer WriteVariable(DatabaseHandle database, const char* name, const void* value, DWORD size) {
    const std::string_view nameText = name;
    // What the service would answer to it, if a message could carry it there.
    if (size > kValueSizeMax) return Answer::WrongSize;
    Call call(kWriteVariable, kNdrU32Size * 2 + NdrTextSize(nameText) + NdrBytesSize(size));
    call.request.U32(database);
    call.request.Text(nameText);
    call.request.Bytes(value, size);
    call.request.U32(size);
    return call.Send() ? call.Status() : call.Failure();
}

Answer ReadVariable(DatabaseHandle database, const char* name, void* buffer, DWORD size, DWORD* valueSize) {
    const std::string_view nameText = name;
    if (buffer == nullptr) {
        size = 0;
        *valueSize = 0;
    }
    Call call(kReadVariable, kNdrU32Size * 2 + NdrTextSize(nameText));
    call.request.U32(database);
    call.request.Text(nameText);
    call.request.U32(size);
    if (!call.Send()) return call.Failure();
    const NdrBytes value = call.reply.Bytes();
    const DWORD storedSize = call.reply.U32();
    const Answer answer = call.Status();
    // The array has as many elements as were asked for, so that a reply never exceeds the buffer.
    if (answer == Answer::BadStubData || value.size != size) return Answer::BadStubData;
    *valueSize = storedSize;
    if (answer == Answer::Done && size > 0) memcpy(buffer, value.data, size);
    return answer;
}

Answer SetCompositeMembers(DatabaseHandle database, const char* name, const char* members) {
    const std::string_view nameText = name;
    const std::string_view membersText = members;
    Call call(kSetCompositeMembers, kNdrU32Size + NdrTextSize(nameText) + NdrTextSize(membersText));
    call.request.U32(database);
    call.request.Text(nameText);
    call.request.Text(membersText);
    return call.Send() ? call.Status() : call.Failure();
}

Answer GetVariableInfo(DatabaseHandle database, const char* name, VariableInfo* info) {
    const std::string_view nameText = name;
    Call call(kGetVariableInfo, kNdrU32Size + NdrTextSize(nameText));
    call.request.U32(database);
    call.request.Text(nameText);
    if (!call.Send()) return call.Failure();
    *info = call.reply.ReadVariableInfo();
    return call.Status();
}

Answer GetWriteTime(DatabaseHandle database, const char* name, SYSTEMTIME* writeTime) {
    VariableInfo info;
    const Answer answer = GetVariableInfo(database, name, &info);
    if (answer == Answer::Done) *writeTime = info.writeTime;
    return answer;
}

Answer GetWriteCount(DatabaseHandle database, const char* name, DWORD* writes) {
    VariableInfo info;
    const Answer answer = GetVariableInfo(database, name, &info);
    if (answer == Answer::Done) *writes = info.writes;
    return answer;
}

Answer WatchVariable(DatabaseHandle database, const char* name, WatchMode mode) {
    const std::string_view nameText = name;
    Call call(kWatchVariable, kNdrU32Size * 2 + NdrTextSize(nameText));
    call.request.U32(database);
    call.request.Text(nameText);
    call.request.U32(mode);
    return call.Send() ? call.Status() : call.Failure();
}

Answer UnwatchVariable(DatabaseHandle database, const char* name) {
    const std::string_view nameText = name;
    Call call(kUnwatchVariable, kNdrU32Size + NdrTextSize(nameText));
    call.request.U32(database);
    call.request.Text(nameText);
    return call.Send() ? call.Status() : call.Failure();
}

Answer ForwardRequest(const char* request) {
    const std::string_view text = request;
    Call call(kForwardRequest, NdrTextSize(text));
    call.request.Text(text);
    return call.Send() ? call.Status() : call.Failure();
}
