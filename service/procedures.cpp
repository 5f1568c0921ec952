#include "procedures.h"

#include "administrators.h"
#include "clients.h"
#include "clock.h"
#include "composite.h"
#include "watches.h"
#include "writing.h"

#include "product/ndr.h"

#include <exception>
#include <iterator>
#include <random>
#include <string.h>

using namespace product;

namespace {

// A call in progress. Text and bytes of the request stay valid in the run-time's buffer until it returns.
struct Call {
    RPC_MESSAGE& message;
    NdrReader request;
    Caller caller;
    Group& group = caller.group;
};

// Each returns 0 after it has written a reply, or the run-time's code to raise: it is raised when nothing is held any
// more.
using ProcedureFunction = RPC_STATUS (*)(Call& call);

NdrWriter BeginReply(Call& call, ULONGLONG size, RPC_STATUS* fault) {
    call.message.BufferLength = static_cast<unsigned int>(size);
    *fault = I_RpcGetBuffer(&call.message);
    return *fault == RPC_S_OK ? NdrWriter{call.message.Buffer, call.message.BufferLength} : NdrWriter{nullptr, 0};
}

RPC_STATUS ReplyStatus(Call& call, LONG status) {
    RPC_STATUS fault;
    BeginReply(call, kNdrU32Size, &fault).Status(status);
    return fault;
}

RPC_STATUS ReplyHandle(Call& call, DWORD handle, LONG status) {
    RPC_STATUS fault;
    NdrWriter reply = BeginReply(call, 2 * kNdrU32Size, &fault);
    reply.U32(handle);
    reply.Status(status);
    return fault;
}

RPC_STATUS ServeCreateDatabase(Call& call) {
    const std::string_view name = call.request.Text();
    if (!call.request.Good()) return RPC_X_BAD_STUB_DATA;
    DWORD handle = ReserveHandle(call.group);
    if (handle == 0) return ReplyHandle(call, 0, kLimitReached);
    Database* database = nullptr;
    const ServiceStatus status = CreateDatabase(call.caller, name, handle, &database);
    if (status == kDone) {
        SetHandle(handle, *database);
    } else {
        CancelHandle(call.group, handle);
        handle = 0;
    }
    return ReplyHandle(call, handle, status);
}

ServiceStatus OpenExisting(Group& group, std::string_view name, DWORD* handle) {
    Database* database = FindDatabase(name);
    if (!database) return kUnknownDatabase;
    switch (database->state.load(std::memory_order_acquire)) {
    case DatabaseState::Initialising:
        return kBeingInitialised;
    case DatabaseState::GivenUp:
        return kUnknownDatabase;
    case DatabaseState::Ready:
        break;
    }
    *handle = ReserveHandle(group);
    if (*handle == 0) return kLimitReached;
    SetHandle(*handle, *database);
    return kDone;
}

RPC_STATUS ServeOpenDatabase(Call& call) {
    const std::string_view name = call.request.Text();
    if (!call.request.Good()) return RPC_X_BAD_STUB_DATA;
    DWORD handle = 0;
    const ServiceStatus status = OpenExisting(call.group, name, &handle);
    return ReplyHandle(call, handle, status);
}

RPC_STATUS ServeCloseDatabase(Call& call) {
    const DWORD handle = call.request.U32();
    if (!call.request.Good()) return RPC_X_BAD_STUB_DATA;
    return ReplyStatus(call, CloseHandleOf(call.group, handle) ? kDone : kUnknownDatabase);
}

ServiceInstance NewInstance() {
    ServiceInstance instance = 0;
    try {
        std::random_device random;
        instance = ServiceInstance{random()} << 32 | random();
    } catch (const std::exception&) {
        instance = ServiceInstance{GetCurrentProcessId()} << 32 | GetTickCount(); // enough to tell two runs apart
    }
    return instance != 0 ? instance : 1;
}

const ServiceInstance g_instance = NewInstance();

RPC_STATUS ServeGetServiceInstance(Call& call) {
    RPC_STATUS fault;
    NdrWriter reply = BeginReply(call, 3 * kNdrU32Size, &fault);
    reply.U32(static_cast<DWORD>(g_instance));
    reply.U32(static_cast<DWORD>(g_instance >> 32));
    reply.Status(kDone);
    return fault;
}

// Those that have the database open but for its printer sides, which are no managers: one that waits for the others to
// close would wait for them.
DWORD ManagersOf(Database& database) {
    const DWORD printerSides = HandlesOfPrinterSides(database);
    const DWORD all = database.openHandles.load();
    return all > printerSides ? all - printerSides : 0;
}

RPC_STATUS ServeGetDatabaseInfo(Call& call) {
    const DWORD handle = call.request.U32();
    if (!call.request.Good()) return RPC_X_BAD_STUB_DATA;
    const DatabaseUse database{call.group, handle};
    DatabaseInfo info = {};
    if (database) info = {ManagersOf(*database), database->variableCount.load(), ToSystemTime(CreationTime(*database))};
    RPC_STATUS fault;
    NdrWriter reply = BeginReply(call, sizeof info + kNdrU32Size, &fault);
    reply.WriteDatabaseInfo(info);
    reply.Status(database ? kDone : kUnknownDatabase);
    return fault;
}

RPC_STATUS ServeEndDatabaseInitialization(Call& call) {
    const DWORD handle = call.request.U32();
    if (!call.request.Good()) return RPC_X_BAD_STUB_DATA;
    const DatabaseUse database{call.group, handle};
    return ReplyStatus(call, database ? EndInitialisation(*database, handle) : kUnknownDatabase);
}

RPC_STATUS ServeCreateVariable(Call& call) {
    const DWORD handle = call.request.U32();
    const std::string_view name = call.request.Text();
    const DWORD type = call.request.U32();
    const DWORD size = call.request.U32();
    const DWORD reserved = call.request.U32();
    const NdrBytes value = call.request.Bytes();
    if (!call.request.Good() || value.size != size) return RPC_X_BAD_STUB_DATA;
    const DatabaseUse database{call.group, handle};
    if (!database) return ReplyStatus(call, kUnknownDatabase);
    if (reserved != 0 || type >= kTypeCount) return ReplyStatus(call, kBadArgument);
    return ReplyStatus(call,
                       CreateVariable(*database, call.caller, name, static_cast<DatabaseType>(type), value.data, size));
}

RPC_STATUS ServeWriteVariable(Call& call) {
    const DWORD handle = call.request.U32();
    const std::string_view name = call.request.Text();
    const NdrBytes value = call.request.Bytes();
    const DWORD size = call.request.U32();
    if (!call.request.Good() || value.size != size) return RPC_X_BAD_STUB_DATA;
    const DatabaseUse database{call.group, handle};
    if (!database) return ReplyStatus(call, kUnknownDatabase);
    return ReplyStatus(call, WriteVariable(*database, call.caller, name, value.data, size));
}

RPC_STATUS ServeReadVariable(Call& call) {
    const DWORD handle = call.request.U32();
    const std::string_view name = call.request.Text();
    const DWORD size = call.request.U32();
    if (!call.request.Good() || size > kValueSizeMax) return RPC_X_BAD_STUB_DATA;
    const DatabaseUse database{call.group, handle};
    const Variable* variable = database ? FindVariable(*database, name) : nullptr;
    RPC_STATUS fault;
    NdrWriter reply = BeginReply(call, NdrBytesSize(size) + 2 * kNdrU32Size, &fault);
    if (fault != RPC_S_OK) return fault;
    BYTE* array = reply.Array(size);
    ValueState state = {};
    ServiceStatus status = database ? kUnknownVariable : kUnknownDatabase;
    if (variable) status = ReadAnyValue(*database, *variable, array, size, &state);
    const DWORD filled = status == kDone ? state.size : 0;
    memset(array + filled, 0, size - filled);
    if (status == kBufferTooSmall && size == 0) status = kDone;
    reply.U32(state.size);
    reply.Status(status);
    return RPC_S_OK;
}

RPC_STATUS ServeSetCompositeMembers(Call& call) {
    const DWORD handle = call.request.U32();
    const std::string_view composite = call.request.Text();
    const std::string_view list = call.request.Text();
    if (!call.request.Good()) return RPC_X_BAD_STUB_DATA;
    const DatabaseUse database{call.group, handle};
    if (!database) return ReplyStatus(call, kUnknownDatabase);
    return ReplyStatus(call, SetCompositeMembers(*database, call.caller, composite, list));
}

ServiceStatus InfoOf(const Group& group, Database& database, std::string_view name, VariableInfo* info) {
    Variable* variable = FindVariable(database, name);
    if (!variable) return kUnknownVariable;
    NoteQuestion(group, *variable);
    ValueState state = {};
    const ServiceStatus status = ReadAnyValue(database, *variable, nullptr, 0, &state);
    if (status == kLimitReached) return status;
    *info = {variable->type, state.size, state.writes, ToSystemTime(state.writeTime)};
    return kDone;
}

RPC_STATUS ServeGetVariableInfo(Call& call) {
    const DWORD handle = call.request.U32();
    const std::string_view name = call.request.Text();
    if (!call.request.Good()) return RPC_X_BAD_STUB_DATA;
    const DatabaseUse database{call.group, handle};
    VariableInfo info = {};
    const ServiceStatus status = database ? InfoOf(call.group, *database, name, &info) : kUnknownDatabase;
    RPC_STATUS fault;
    NdrWriter reply = BeginReply(call, sizeof info + kNdrU32Size, &fault);
    reply.WriteVariableInfo(info);
    reply.Status(status);
    return fault;
}

RPC_STATUS ServeWatchVariable(Call& call) {
    const DWORD handle = call.request.U32();
    const std::string_view name = call.request.Text();
    const DWORD mode = call.request.U32();
    if (!call.request.Good()) return RPC_X_BAD_STUB_DATA;
    const DatabaseUse database{call.group, handle};
    if (!database) return ReplyStatus(call, kUnknownDatabase);
    if (mode != kEveryWrite && mode != kOnlyChanges) return ReplyStatus(call, kBadArgument);
    // A database that can still be given up must not be held by anything but its handle.
    if (!database.IsReady()) return ReplyStatus(call, kBeingInitialised);
    Variable* variable = FindVariable(*database, name);
    if (!variable) return ReplyStatus(call, kUnknownVariable);
    // Whoever watches the mailbox is the printer side, and answers for the printer.
    if (variable->role == VariableRole::Mailbox && !IsAdministrator(call.caller))
        return ReplyStatus(call, kAccessDenied);
    return ReplyStatus(call, AddWatch(call.group, *database, *variable, static_cast<WatchMode>(mode)));
}

RPC_STATUS ServeUnwatchVariable(Call& call) {
    const DWORD handle = call.request.U32();
    const std::string_view name = call.request.Text();
    if (!call.request.Good()) return RPC_X_BAD_STUB_DATA;
    const DatabaseUse database{call.group, handle};
    if (!database) return ReplyStatus(call, kUnknownDatabase);
    const Variable* variable = FindVariable(*database, name);
    return ReplyStatus(call, variable ? EndWatch(call.group, *variable) : kUnknownVariable);
}

RPC_STATUS ServeForwardRequest(Call& call) {
    const std::string_view request = call.request.Text();
    if (!call.request.Good()) return RPC_X_BAD_STUB_DATA;
    return ReplyStatus(call, ForwardRequest(request));
}

struct ProcedureRow {
    UINT number;
    ProcedureFunction function = nullptr; // null: not served
};

constexpr ProcedureRow kProcedures[] = {
    {kCreateDatabase, ServeCreateDatabase},
    {kOpenDatabase, ServeOpenDatabase},
    {kCloseDatabase, ServeCloseDatabase},
    {kGetServiceInstance, ServeGetServiceInstance},
    {kGetDatabaseInfo, ServeGetDatabaseInfo},
    {5},
    {6},
    {kEndDatabaseInitialization, ServeEndDatabaseInitialization},
    {kCreateVariable, ServeCreateVariable},
    {kWriteVariable, ServeWriteVariable},
    {kReadVariable, ServeReadVariable},
    {11},
    {kSetCompositeMembers, ServeSetCompositeMembers},
    {13},
    {kGetVariableInfo, ServeGetVariableInfo},
    {kWatchVariable, ServeWatchVariable},
    {kUnwatchVariable, ServeUnwatchVariable},
    {17},
    {kForwardRequest, ServeForwardRequest},
};

constexpr bool RowsStandAtTheirNumbers() {
    for (UINT i = 0; i < std::size(kProcedures); ++i)
        if (kProcedures[i].number != i) return false;
    return std::size(kProcedures) == kProcedureCount;
}
static_assert(RowsStandAtTheirNumbers());

RPC_STATUS Serve(RPC_MESSAGE& message) {
    const ProcedureFunction function =
        message.ProcNum < kProcedureCount ? kProcedures[message.ProcNum].function : nullptr;
    if (!function) return RPC_S_PROCNUM_OUT_OF_RANGE;
    RPC_STATUS fault = RPC_S_OK;
    const CallersAssociation caller(message.Handle);
    Group* group = CallingGroup(caller, &fault);
    if (!group) return fault;
    Call call{message, NdrReader{message.Buffer, message.BufferLength, message.DataRepresentation}, {*group, caller}};
    return function(call);
}

void __RPC_STUB Dispatch(PRPC_MESSAGE message) {
    const RPC_STATUS fault = Serve(*message);
    if (fault != RPC_S_OK) RpcRaiseException(fault);
}

// The run-time looks functions up by number; ours are told apart by the message, so that one place guards them all.
RPC_DISPATCH_FUNCTION g_dispatchFunctions[kProcedureCount] = {
    Dispatch, Dispatch, Dispatch, Dispatch, Dispatch, Dispatch, Dispatch, Dispatch, Dispatch, Dispatch,
    Dispatch, Dispatch, Dispatch, Dispatch, Dispatch, Dispatch, Dispatch, Dispatch, Dispatch,
};

RPC_DISPATCH_TABLE g_dispatchTable = {kProcedureCount, g_dispatchFunctions, 0};

} // namespace

RPC_SERVER_INTERFACE g_serverInterface = {
    sizeof(RPC_SERVER_INTERFACE), kInterfaceSyntax, kNdrSyntax, &g_dispatchTable, 0, nullptr, nullptr, nullptr, 0};
