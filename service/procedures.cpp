// The procedures, and their marshalling by the rows of product/interface.h. State: which run of the service this is.
#include "procedures.h"

#include "changes.h"
#include "clients.h"
#include "composite.h"
#include "forwarding.h"
#include "printers.h"
#include "settings.h"
#include "watches.h"

#include "product/ndr.h"
#include "product/printer_list.h"

#include <array>
#include <exception>
#include <random>
#include <string.h>
#include <tuple>
#include <type_traits>
#include <utility>

using namespace product;

namespace {

// A call in progress. Text and bytes of the request stay valid in the run-time's buffer until it returns.
struct Call {
    RPC_MESSAGE& message;
    NdrReader request;
    Caller caller;
};

NdrWriter BeginReply(Call& call, ULONGLONG size, RPC_STATUS* fault) {
    call.message.BufferLength = static_cast<unsigned int>(size);
    *fault = I_RpcGetBuffer(&call.message);
    return *fault == RPC_S_OK ? NdrWriter{call.message.Buffer, call.message.BufferLength} : NdrWriter{nullptr, 0};
}

// ---- the procedures: an overload of Serve for each row of product/interface.h. Handle below calls it with the row's
// in parameters and references to its out parameters, which are zero; it returns the status.

template <Procedure procedure>
struct Row {};

LONG Create(const Caller& caller, std::string_view name, DWORD& handle) {
    handle = ReserveHandle(caller.group);
    if (handle == 0) return kLimitReached;
    Database* database = nullptr;
    const ServiceStatus status = CreateDatabase(caller, name, handle, &database);
    if (status == kDone) {
        SetHandle(handle, *database);
    } else {
        CancelHandle(caller.group, handle);
        handle = 0;
    }
    return status;
}

LONG Open(const Caller& caller, std::string_view name, DWORD& handle, Database*& database) {
    database = FindDatabase(name);
    if (!database) return kUnknownDatabase;
    switch (database->state.load(std::memory_order_acquire)) {
    case DatabaseState::Initialising:
        return kBeingInitialised;
    case DatabaseState::GivenUp:
        return kUnknownDatabase;
    case DatabaseState::Ready:
        break;
    }
    handle = ReserveHandle(caller.group);
    if (handle == 0) return kLimitReached;
    SetHandle(handle, *database);
    return kDone;
}

// Of a ready database; everything is empty when nothing is published.
struct Place {
    std::string_view section;
    DWORD size = 0;
    std::string_view life;

    explicit Place(Database& database) {
        const LockHold hold{database.lock}; // not while the section is being replaced
        const Publication* publication = database.store.publication.load(std::memory_order_relaxed);
        if (!publication) return;
        section = SectionName(*publication);
        size = SectionSize(*publication);
        life = LifeName();
    }
};

LONG Serve(Row<kCreateDatabase>, const Caller& caller, std::string_view name, DWORD& handle) {
    return Create(caller, name, handle);
}

LONG Serve(Row<kOpenDatabase>, const Caller& caller, std::string_view name, DWORD& handle) {
    Database* database = nullptr;
    return Open(caller, name, handle, database);
}

LONG Serve(Row<kCloseDatabase>, const Caller& caller, DWORD handle) {
    return CloseHandleOf(caller.group, handle) ? kDone : kUnknownDatabase;
}

LONG Serve(Row<kLeaveDatabases>, const Caller& caller, DWORD first, DWORD second) {
    const bool firstClosed = CloseHandleOf(caller.group, first);
    const bool both = CloseHandleOf(caller.group, second) && firstClosed;
    return both ? kDone : kUnknownDatabase;
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

// A database that another client creates or gives up in between is opened or created at the next attempt.
LONG Serve(Row<kEnterDatabase>, const Caller& caller, std::string_view name, DWORD& handle, DWORD& created,
           ServiceInstance& instance, std::string_view& section, DWORD& size, std::string_view& life) {
    constexpr int kAttempts = 3;
    LONG status = kUnknownDatabase;
    for (int i = 0; i < kAttempts && status == kUnknownDatabase; ++i) {
        Database* database = nullptr;
        status = Open(caller, name, handle, database);
        if (status == kDone) {
            const Place place{*database};
            std::tie(section, size, life) = std::tie(place.section, place.size, place.life);
        } else if (status == kUnknownDatabase) {
            status = Create(caller, name, handle);
            created = status == kDone;
            if (status == kDatabaseExists) status = kUnknownDatabase;
        }
    }
    instance = g_instance;
    return status;
}

LONG Serve(Row<kEnterPrinter>, const Caller& caller, std::string_view printer, DWORD& master, DWORD& created,
           ServiceInstance& instance, std::string_view& section, DWORD& size, std::string_view& life, DWORD& handle,
           std::string_view& name, std::string_view& printerSection, DWORD& printerSize) {
    const LONG status =
        Serve(Row<kEnterDatabase>{}, caller, kMasterDatabase, master, created, instance, section, size, life);
    Database* database = status == kDone && !created ? DatabaseOfPrinter(printer) : nullptr;
    if (!database || Open(caller, database->name, handle, database) != kDone) return status;
    const Place place{*database};
    name = database->name;
    std::tie(printerSection, printerSize) = std::tie(place.section, place.size);
    return status;
}

LONG Serve(Row<kGetServiceInstance>, const Caller&, ServiceInstance& instance) {
    instance = g_instance;
    return kDone;
}

// Those that have the database open, without its printer sides: these are not managers, and one that waits for the
// others to close would wait for them.
DWORD ManagersOf(Database& database) {
    const DWORD printerSides = HandlesOfPrinterSides(database);
    const DWORD all = database.openHandles.load();
    return all > printerSides ? all - printerSides : 0;
}

LONG Serve(Row<kGetDatabaseInfo>, const Caller& caller, DWORD handle, DatabaseInfo& info) {
    const DatabaseUse database{caller.group, handle};
    if (!database) return kUnknownDatabase;
    info = {ManagersOf(*database), database->variableCount.load(), ToSystemTime(CreationTime(*database))};
    return kDone;
}

LONG Serve(Row<kEndDatabaseInitialization>, const Caller& caller, DWORD handle) {
    const DatabaseUse database{caller.group, handle};
    return database ? EndInitialisationOf(*database, handle) : kUnknownDatabase;
}

LONG Serve(Row<kCreateVariable>, const Caller& caller, DWORD handle, std::string_view name, DWORD type,
           WireForms::count size, DWORD reserved, NdrBytes value) {
    const DatabaseUse database{caller.group, handle};
    if (!database) return kUnknownDatabase;
    if (reserved != 0 || type >= kTypeCount) return kBadArgument;
    return CreateVariable(*database, caller, name, static_cast<DatabaseType>(type), value.data, size.value);
}

LONG Serve(Row<kWriteVariable>, const Caller& caller, DWORD handle, std::string_view name, NdrBytes value,
           WireForms::count size) {
    const DatabaseUse database{caller.group, handle};
    return database ? WriteVariable(*database, caller, name, value.data, size.value) : kUnknownDatabase;
}

LONG Serve(Row<kSetCompositeMembers>, const Caller& caller, DWORD handle, std::string_view composite,
           std::string_view members) {
    const DatabaseUse database{caller.group, handle};
    return database ? SetCompositeMembers(*database, caller, composite, members) : kUnknownDatabase;
}

LONG Serve(Row<kMayWrite>, const Caller& caller, DWORD handle, std::string_view name) {
    const DatabaseUse database{caller.group, handle};
    if (!database) return kUnknownDatabase;
    const Variable* variable = FindVariable(*database, name);
    return variable ? MayWrite(*database, caller, *variable) : kUnknownVariable;
}

LONG Serve(Row<kGetVariableInfo>, const Caller& caller, DWORD handle, std::string_view name, VariableInfo& info) {
    const DatabaseUse database{caller.group, handle};
    if (!database) return kUnknownDatabase;
    Variable* variable = FindVariable(*database, name);
    if (!variable) return kUnknownVariable;
    ValueState state = {};
    const ServiceStatus status = ReadAnyValue(*database, *variable, nullptr, 0, &state);
    if (status == kLimitReached) return status;
    info = {variable->type, state.size, state.writes, ToSystemTime(state.writeTime)};
    return kDone;
}

LONG Serve(Row<kWatchVariable>, const Caller& caller, DWORD handle, std::string_view name, DWORD mode) {
    const DatabaseUse database{caller.group, handle};
    if (!database) return kUnknownDatabase;
    if (mode != kEveryWrite && mode != kOnlyChanges) return kBadArgument;
    // A database that can still be given up must not be held by anything but its handle.
    if (!database.IsReady()) return kBeingInitialised;
    Variable* variable = FindVariable(*database, name);
    if (!variable) return kUnknownVariable;
    // Whoever watches the mailbox is the printer side, and answers for the printer.
    if (variable->role == VariableRole::Mailbox && !IsAdministrator(caller)) return kAccessDenied;
    return AddWatch(caller.group, *database, *variable, static_cast<WatchMode>(mode));
}

LONG Serve(Row<kUnwatchVariable>, const Caller& caller, DWORD handle, std::string_view name) {
    const DatabaseUse database{caller.group, handle};
    if (!database) return kUnknownDatabase;
    const Variable* variable = FindVariable(*database, name);
    return variable ? EndWatch(caller.group, *variable) : kUnknownVariable;
}

LONG Serve(Row<kFindPublishedValues>, const Caller& caller, DWORD handle, std::string_view& section, DWORD& size,
           std::string_view& life) {
    const DatabaseUse database{caller.group, handle};
    if (!database) return kUnknownDatabase;
    if (!database.IsReady()) return kBeingInitialised;
    const Place place{*database};
    std::tie(section, size, life) = std::tie(place.section, place.size, place.life);
    return kDone;
}

LONG Serve(Row<kCreateVariables>, const Caller& caller, DWORD handle, NdrBytes variables, DWORD& made) {
    const DatabaseUse database{caller.group, handle};
    return database ? CreateVariables(*database, caller, variables.data, variables.size, &made) : kUnknownDatabase;
}

LONG Serve(Row<kForwardRequest>, const Caller&, std::string_view request) {
    return ForwardRequest(request);
}

// ---- from the request's bytes to the reply's

// A reply that cannot be had is the run-time's code; writes to no buffer do nothing.
template <typename... Forms>
RPC_STATUS Reply(Call& call, const std::tuple<Forms...>& out, LONG status) {
    RPC_STATUS fault;
    NdrWriter reply = BeginReply(call, NdrSizeOfAll(out) + kNdrStatusSize, &fault);
    reply.WriteAll(out);
    reply.Status(status);
    return fault;
}

template <typename... Forms>
bool CountsAgree(const std::tuple<Forms...>& in) {
    if constexpr ((std::is_same_v<Forms, WireForms::count> || ...))
        return std::get<WireForms::count>(in).value == std::get<WireForms::bytes>(in).size;
    return true;
}

template <typename... Forms>
bool ReadRequest(Call& call, std::tuple<Forms...>& in) {
    call.request.ReadAll(in);
    return call.request.Good() && CountsAgree(in);
}

// 0 after it has written a reply, or the run-time's code to raise: it is raised when nothing is held any more.
template <Procedure procedure>
RPC_STATUS Handle(Call& call) {
    InOf<procedure> in;
    if (!ReadRequest(call, in)) return RPC_X_BAD_STUB_DATA;
    OutOf<procedure> out{};
    const LONG status = std::apply(
        [&](const auto&... given) {
            return std::apply(
                [&](auto&... result) { return Serve(Row<procedure>{}, call.caller, given..., result...); }, out);
        },
        in);
    return Reply(call, out, status);
}

// By hand: the value is copied once, from the variable into the reply, whose length the request gives.
template <>
RPC_STATUS Handle<kReadVariable>(Call& call) {
    InOf<kReadVariable> in;
    if (!ReadRequest(call, in)) return RPC_X_BAD_STUB_DATA;
    const auto [handle, name, size] = in;
    if (size > kValueSizeMax) return RPC_X_BAD_STUB_DATA;
    const DatabaseUse database{call.caller.group, handle};
    const Variable* variable = database ? FindVariable(*database, name) : nullptr;
    RPC_STATUS fault;
    NdrWriter reply = BeginReply(call, NdrSize(NdrBytes{nullptr, size}) + NdrSize(size) + kNdrStatusSize, &fault);
    if (fault != RPC_S_OK) return fault;
    BYTE* array = reply.Array(size);
    ValueState state = {};
    ServiceStatus status = database ? kUnknownVariable : kUnknownDatabase;
    if (variable) status = ReadAnyValue(*database, *variable, array, size, &state);
    const DWORD filled = status == kDone ? state.size : 0;
    memset(array + filled, 0, size - filled);
    if (status == kBufferTooSmall && size == 0) status = kDone;
    reply.Write(state.size);
    reply.Status(status);
    return RPC_S_OK;
}

using HandleFunction = RPC_STATUS (*)(Call& call);

template <Procedure procedure>
constexpr HandleFunction HandleOf() {
    if constexpr (Signature<procedure>::isServed)
        return Handle<procedure>;
    else
        return nullptr;
}

template <size_t... number>
constexpr std::array<HandleFunction, sizeof...(number)> HandlesOfAll(std::index_sequence<number...>) {
    return {HandleOf<number>()...};
}

constexpr auto kHandles = HandlesOfAll(std::make_index_sequence<kProcedureCount>());

RPC_STATUS Serve(RPC_MESSAGE& message) {
    const HandleFunction handle = message.ProcNum < kHandles.size() ? kHandles[message.ProcNum] : nullptr;
    if (!handle) return RPC_S_PROCNUM_OUT_OF_RANGE;
    RPC_STATUS fault = RPC_S_OK;
    const CallersAssociation caller(message.Handle);
    Group* group = CallingGroup(caller, &fault);
    if (!group) return fault;
    Call call{message, NdrReader{message.Buffer, message.BufferLength, message.DataRepresentation}, {*group, caller}};
    return handle(call);
}

void __RPC_STUB Dispatch(PRPC_MESSAGE message) {
    const RPC_STATUS fault = Serve(*message);
    if (fault != RPC_S_OK) RpcRaiseException(fault);
}

// The run-time looks functions up by number. All of its entries are Dispatch, which has the number from the message, so
// that one place guards all procedures.
using DispatchFunctions = std::array<RPC_DISPATCH_FUNCTION, kProcedureCount>;

constexpr DispatchFunctions DispatchForAll() {
    DispatchFunctions functions{};
    functions.fill(Dispatch);
    return functions;
}

DispatchFunctions g_dispatchFunctions = DispatchForAll();

RPC_DISPATCH_TABLE g_dispatchTable = {kProcedureCount, g_dispatchFunctions.data(), 0};

} // namespace

RPC_SERVER_INTERFACE g_serverInterface = {
    sizeof(RPC_SERVER_INTERFACE), kInterfaceSyntax, kNdrSyntax, &g_dispatchTable, 0, nullptr, nullptr, nullptr, 0};

ServiceInstance ThisInstance() {
    return g_instance;
}
