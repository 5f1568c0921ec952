// State: the binding, and the bound on the calls of a process that ends.
#include "product/client.h"

#include "product/ndr.h"
#include "product/printer_list.h"

#include <algorithm>
#include <atomic>
#include <string.h>
#include <string_view>

namespace {

using namespace product;

RPC_BINDING_HANDLE g_binding;
RPC_BINDING_HANDLE g_patientBinding; // for ForwardRequest
RPC_CSTR g_stringBinding;
RPC_CLIENT_INTERFACE g_interface;

// The bound on the calls of a process that ends.
struct CallBound {
    DWORD start; // tick count
    DWORD boundMs;
    DWORD eachMs;
};
CallBound g_bound;
std::atomic<bool> g_isBounded;
std::atomic<bool> g_gaveUp;

// False when no more calls are made. Several threads may set the limit at once, to nearly the same value.
bool LimitCall() {
    if (!g_isBounded.load()) return true;
    if (g_gaveUp.load()) return false;
    for (RPC_BINDING_HANDLE binding : {g_binding, g_patientBinding})
        RpcBindingSetOption(binding, RPC_C_OPT_CALL_TIMEOUT, LeftForCalls());
    return true;
}

RPC_STATUS NoteResult(RPC_STATUS result) {
    if (result == RPC_S_CALL_CANCELLED && g_isBounded.load()) g_gaveUp = true;
    return result;
}

// The label of the local form: little-endian integers, ASCII characters.
constexpr ULONG kLocalRepresentation = 0x10;

// CreateDatabase, the first call of an open, may find the service gone.
constexpr int kCallsWithRestart = 4;

RPC_CSTR Text(const char* text) {
    return reinterpret_cast<RPC_CSTR>(const_cast<char*>(text));
}

// One call: the request is marshalled straight into the run-time's buffer, the reply read straight from it. Invoke
// below makes one of any procedure.
class Call {
public:
    Call(Procedure procedure, ULONGLONG bodySize)
        : m_message(), m_result(GetBuffer(procedure, bodySize)),
          request(m_message.Buffer, m_result == RPC_S_OK ? m_message.BufferLength : 0) {}
    ~Call() {
        if (m_message.Buffer) I_RpcFreeBuffer(&m_message);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    bool Send() {
        if (m_result != RPC_S_OK) return false;
        if (!request.Good()) { // the body did not fit the size given
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

    // Why there is no reply. A code of the run-time is positive, and so is an exception of the server; anything else is
    // a reply that cannot be read.
    Answer Failure() const { return m_result > 0 ? static_cast<Answer>(m_result) : Answer::BadStubData; }

    // The status, the last word of every reply. A reply that cannot be decoded is a failed call.
    Answer Status() {
        const LONG status = reply.Status();
        return reply.Good() ? static_cast<Answer>(status) : Answer::BadStubData;
    }

private:
    RPC_STATUS GetBuffer(Procedure procedure, ULONGLONG bodySize) {
        if (!g_binding || !g_patientBinding) return RPC_S_INVALID_BINDING;
        if (bodySize > kBodySizeMax) return RPC_S_OUT_OF_MEMORY; // the run-time carries no larger body
        if (!LimitCall()) return RPC_S_CALL_CANCELLED;
        m_message.Handle = procedure == kForwardRequest ? g_patientBinding : g_binding;
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

template <Procedure procedure>
class CallOf : public Call {
public:
    explicit CallOf(const InOf<procedure>& in) : Call(procedure, NdrSizeOfAll(in)) { request.WriteAll(in); }

    // After Send. Text and bytes point into the reply; the values count once Status is not BadStubData.
    OutOf<procedure> Out() {
        OutOf<procedure> out{};
        reply.ReadAll(out);
        return out;
    }
};

// The stub of every procedure. The results are assigned when it is done, else they stay untouched.
template <Procedure procedure>
Answer Invoke(const InOf<procedure>& in, ResultsOf<procedure> results = {}) {
    CallOf<procedure> call(in);
    if (!call.Send()) return call.Failure();
    const OutOf<procedure> out = call.Out();
    const Answer answer = call.Status();
    if (answer == Answer::Done) results = out;
    return answer;
}

} // namespace

void LimitAnswers(DWORD boundMs) {
    RpcBindingSetOption(g_binding, RPC_C_OPT_CALL_TIMEOUT, boundMs);
}

void BoundCalls(DWORD boundMs, DWORD eachMs) {
    g_bound = {GetTickCount(), boundMs, eachMs};
    g_isBounded = true;
}

DWORD LeftForCalls() {
    if (!g_isBounded.load()) return INFINITE;
    if (g_gaveUp.load()) return 0;
    const DWORD spent = GetTickCount() - g_bound.start;
    const DWORD left = spent < g_bound.boundMs ? g_bound.boundMs - spent : 0;
    return std::max(left, g_bound.eachMs);
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
    for (RPC_BINDING_HANDLE* binding : {&g_binding, &g_patientBinding})
        if (RpcBindingFromStringBindingA(g_stringBinding, binding) != RPC_S_OK) return false;
    LimitAnswers(kAnswerBound);
    return true;
}

void UnbindStatusDatabase() {
    if (g_stringBinding) RpcStringFreeA(&g_stringBinding);
    for (RPC_BINDING_HANDLE* binding : {&g_binding, &g_patientBinding}) {
        if (*binding) RpcBindingFree(binding);
        *binding = nullptr;
    }
    g_stringBinding = nullptr;
}

namespace {

// A restart also follows the fourth failure, so that the next open finds a server.
template <typename Make> // Answer()
Answer WithRestarts(Make make) {
    Answer answer = Answer::ServerUnavailable;
    for (int i = 0; i < kCallsWithRestart; ++i) {
        answer = make();
        if (answer != Answer::ServerUnavailable || !RestartStatusService9x()) break;
    }
    return answer;
}

// The names of a reply end with it.
bool CopyPlace(std::string_view section, DWORD size, std::string_view life, PublishedPlace* place) {
    if (section.size() >= sizeof place->section.text || life.size() >= sizeof place->life.text) return false;
    memcpy(place->section.text, section.data(), section.size());
    memcpy(place->life.text, life.data(), life.size());
    place->size = size;
    return true;
}

Answer EnterAtOnce(const char* name, EnteredDatabase* entered) {
    CallOf<kEnterDatabase> call(InOf<kEnterDatabase>{name});
    if (!call.Send()) return call.Failure();
    const auto [handle, created, instance, section, size, life] = call.Out();
    const Answer answer = call.Status();
    if (answer != Answer::Done) return answer;
    *entered = {.handle = handle, .created = created != 0, .instance = instance};
    return CopyPlace(section, size, life, &entered->place) ? Answer::Done : Answer::BadStubData;
}

Answer EnterAtOnce(const char* printer, EnteredPrinter* entered) {
    CallOf<kEnterPrinter> call(InOf<kEnterPrinter>{printer});
    if (!call.Send()) return call.Failure();
    const auto [master, created, instance, section, size, life, handle, name, printerSection, printerSize] = call.Out();
    const Answer answer = call.Status();
    if (answer != Answer::Done) return answer;
    entered->master = {.handle = master, .created = created != 0, .instance = instance};
    entered->printer = {.handle = handle, .instance = instance};
    if (name.size() >= sizeof entered->name) return Answer::BadStubData;
    memcpy(entered->name, name.data(), name.size());
    const bool whole = CopyPlace(section, size, life, &entered->master.place) &&
                       CopyPlace(printerSection, printerSize, life, &entered->printer.place);
    return whole ? Answer::Done : Answer::BadStubData;
}

// The instance is read before anything is opened. Handles of a later service would then be opened once more for
// nothing; read afterwards, handles of an earlier one would be taken for handles of this one. Where the creation
// restarts the service, there is none to ask before.
Answer EnterBySingleCalls(const char* name, EnteredDatabase* entered) {
    GetServiceInstance(&entered->instance);
    Answer answer = CreateDatabase(name, &entered->handle);
    entered->created = answer == Answer::Done;
    if (answer == Answer::DatabaseExists) answer = OpenDatabase(name, &entered->handle);
    if (entered->instance == 0) GetServiceInstance(&entered->instance);
    return answer;
}

} // namespace

Answer CreateDatabase(const char* name, DatabaseHandle* handle) {
    *handle = 0; // a handle that is not open must not be closed
    return WithRestarts([&] { return Invoke<kCreateDatabase>({name}, {*handle}); });
}

Answer EnterDatabase(const char* name, EnteredDatabase* entered) {
    *entered = {};
    const Answer answer = WithRestarts([&] { return EnterAtOnce(name, entered); });
    return answer == Answer::NoSuchProcedure ? EnterBySingleCalls(name, entered) : answer;
}

Answer EnterPrinter(const char* printer, EnteredPrinter* entered) {
    *entered = {};
    const Answer answer = WithRestarts([&] { return EnterAtOnce(printer, entered); });
    return answer == Answer::NoSuchProcedure ? EnterDatabase(kMasterDatabase, &entered->master) : answer;
}

Answer OpenDatabase(const char* name, DatabaseHandle* handle) {
    *handle = 0;
    return Invoke<kOpenDatabase>({name}, {*handle});
}

Answer CloseDatabase(DatabaseHandle database) {
    return Invoke<kCloseDatabase>({database});
}

Answer CloseDatabases(DatabaseHandle first, DatabaseHandle second) {
    if (first == 0 || second == 0) return first + second != 0 ? CloseDatabase(first + second) : Answer::Done;
    const Answer answer = Invoke<kLeaveDatabases>({first, second});
    if (answer != Answer::NoSuchProcedure) return answer;
    const Answer firstAnswer = CloseDatabase(first);
    const Answer secondAnswer = CloseDatabase(second);
    return firstAnswer != Answer::Done ? firstAnswer : secondAnswer;
}

Answer GetServiceInstance(ServiceInstance* instance) {
    *instance = 0;
    return Invoke<kGetServiceInstance>({}, {*instance});
}

Answer GetDatabaseInfo(DatabaseHandle database, DatabaseInfo* info) {
    *info = {};
    return Invoke<kGetDatabaseInfo>({database}, {*info});
}

Answer EndDatabaseInitialization(DatabaseHandle database) {
    return Invoke<kEndDatabaseInitialization>({database});
}

Answer CreateVariable(DatabaseHandle database, const char* name, DatabaseType type, DWORD size, const void* value) {
    if (!value) size = 0;
    return Invoke<kCreateVariable>({database, name, type, {size}, 0, {static_cast<const BYTE*>(value), size}});
}

Answer CreateVariables(DatabaseHandle database, const BYTE* variables, DWORD size) {
    DWORD made = 0;
    return Invoke<kCreateVariables>({database, {variables, size}}, {made});
}

Answer WriteVariable(DatabaseHandle database, const char* name, const void* value, DWORD size) {
    // What the service would answer if a message could carry the value.
    if (size > kValueSizeMax) return Answer::WrongSize;
    return Invoke<kWriteVariable>({database, name, {static_cast<const BYTE*>(value), size}, {size}});
}

// Not by Invoke: the value is copied once, from the reply to the caller's buffer, and the stored size is a result of
// kBufferTooSmall too.
Answer ReadVariable(DatabaseHandle database, const char* name, void* buffer, DWORD size, DWORD* valueSize) {
    if (!buffer) {
        size = 0;
        *valueSize = 0;
    }
    CallOf<kReadVariable> call({database, name, size});
    if (!call.Send()) return call.Failure();
    const auto [value, storedSize] = call.Out();
    const Answer answer = call.Status();
    // The array has as many elements as were asked for, so that a reply never exceeds the buffer.
    if (answer == Answer::BadStubData || value.size != size) return Answer::BadStubData;
    *valueSize = storedSize;
    if (answer == Answer::Done && size > 0) memcpy(buffer, value.data, size);
    return answer;
}

Answer MayWrite(DatabaseHandle database, const char* name) {
    return Invoke<kMayWrite>({database, name});
}

Answer SetCompositeMembers(DatabaseHandle database, const char* name, const char* members) {
    return Invoke<kSetCompositeMembers>({database, name, members});
}

Answer GetVariableInfo(DatabaseHandle database, const char* name, VariableInfo* info) {
    return Invoke<kGetVariableInfo>({database, name}, {*info});
}

Answer GetWriteTime(DatabaseHandle database, const char* name, SYSTEMTIME* writeTime) {
    VariableInfo info = {};
    const Answer answer = GetVariableInfo(database, name, &info);
    if (answer == Answer::Done) *writeTime = info.writeTime;
    return answer;
}

Answer GetWriteCount(DatabaseHandle database, const char* name, DWORD* writes) {
    VariableInfo info = {};
    const Answer answer = GetVariableInfo(database, name, &info);
    if (answer == Answer::Done) *writes = info.writes;
    return answer;
}

Answer WatchVariable(DatabaseHandle database, const char* name, WatchMode mode) {
    return Invoke<kWatchVariable>({database, name, mode});
}

Answer UnwatchVariable(DatabaseHandle database, const char* name) {
    return Invoke<kUnwatchVariable>({database, name});
}

// Not by Invoke: the names lie in the reply.
Answer FindPublishedValues(DatabaseHandle database, PublishedPlace* place) {
    *place = {};
    CallOf<kFindPublishedValues> call(InOf<kFindPublishedValues>{database});
    if (!call.Send()) return call.Failure();
    const auto [section, size, life] = call.Out();
    const Answer answer = call.Status();
    if (answer != Answer::Done) return answer;
    return CopyPlace(section, size, life, place) ? Answer::Done : Answer::BadStubData;
}

Answer ForwardRequest(const char* request) {
    return Invoke<kForwardRequest>({request});
}
