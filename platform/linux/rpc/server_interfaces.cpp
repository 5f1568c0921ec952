// Registered interfaces. State: their slots, under g_lock, which calls do not take: a connection looks an interface up
// when it binds and keeps its slot.
#include "base/lock.h"
#include "base/steps.h"
#include "rpc/server.h"

#include <ctime>

namespace oriel::rpc {
namespace {

constinit Lock g_lock;
OfferedInterface g_interfaces[kMaxInterfaces];
unsigned g_interfaceCount ORIEL_LOCK_CHECK(guarded_by(g_lock)) = 0;

OfferedInterface* FindPlace(const RPC_SYNTAX_IDENTIFIER& id) ORIEL_LOCK_CHECK(requires_capability(g_lock)) {
    for (unsigned i = 0; i < g_interfaceCount; ++i)
        if (g_interfaces[i].id == id) return &g_interfaces[i];
    return nullptr;
}

// Polls, so that calls need not report their end. Unbounded: a call may last long.
void WaitForCalls(const OfferedInterface& offered) {
    constexpr timespec kPause{0, 1000000};
    while (IsInUse(&offered))
        nanosleep(&kPause, nullptr);
}

} // namespace

const OfferedInterface* FindInterface(const RPC_SYNTAX_IDENTIFIER& id) {
    LockHold hold(g_lock);
    for (unsigned i = 0; i < g_interfaceCount; ++i) {
        const RPC_SYNTAX_IDENTIFIER& offered = g_interfaces[i].id;
        if (memcmp(&offered.SyntaxGUID, &id.SyntaxGUID, sizeof id.SyntaxGUID) == 0 &&
            offered.SyntaxVersion.MajorVersion == id.SyntaxVersion.MajorVersion &&
            offered.SyntaxVersion.MinorVersion >= id.SyntaxVersion.MinorVersion &&
            g_interfaces[i].registered.load() != nullptr)
            return &g_interfaces[i];
    }
    return nullptr;
}

namespace {

void ForgetInterfaceCalls() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_lock.ForgetOwner();
}

} // namespace
} // namespace oriel::rpc

namespace oriel {
const ForkSteps kRpcInterfacesFork{TakeForFork<rpc::g_lock>, ReleaseAfterFork<rpc::g_lock>, rpc::ForgetInterfaceCalls};
} // namespace oriel

using namespace oriel;
using namespace oriel::rpc;

RPC_STATUS RPC_ENTRY RpcServerRegisterIf2(RPC_IF_HANDLE IfSpec, UUID* MgrTypeUuid, RPC_MGR_EPV* MgrEpv,
                                          unsigned int Flags, unsigned int, unsigned int MaxRpcSize,
                                          RPC_IF_CALLBACK_FN* IfCallbackFn) {
    const auto* registered = static_cast<const RPC_SERVER_INTERFACE*>(IfSpec);
    if (registered == nullptr || registered->Length != sizeof *registered || registered->DispatchTable == nullptr)
        return RPC_S_INVALID_ARG;
    if (MgrTypeUuid != nullptr || IfCallbackFn != nullptr || (Flags & ~RPC_IF_ALLOW_LOCAL_ONLY) != 0)
        return RPC_S_CANNOT_SUPPORT;
    OfferedInterface* place = nullptr;
    {
        LockHold hold(g_lock);
        place = FindPlace(registered->InterfaceId);
        if (place == nullptr) {
            if (g_interfaceCount == kMaxInterfaces) return RPC_S_OUT_OF_RESOURCES;
            place = &g_interfaces[g_interfaceCount];
            place->id = registered->InterfaceId;
            ++g_interfaceCount;
        } else if (place->registered.load() != nullptr) {
            return RPC_S_ALREADY_REGISTERED;
        }
    }
    WaitForCalls(*place); // of an earlier registration that did not wait for its calls
    LockHold hold(g_lock);
    if (place->registered.load() != nullptr) return RPC_S_ALREADY_REGISTERED;
    place->managers = MgrEpv != nullptr ? MgrEpv : registered->DefaultManagerEpv;
    place->largestRequest = MaxRpcSize;
    place->registered.store(registered);
    return RPC_S_OK;
}

RPC_STATUS RPC_ENTRY RpcServerUnregisterIf(RPC_IF_HANDLE IfSpec, UUID* MgrTypeUuid,
                                           unsigned int WaitForCallsToComplete) {
    if (MgrTypeUuid != nullptr) return RPC_S_UNKNOWN_MGR_TYPE;
    bool known = IfSpec == nullptr;
    for (OfferedInterface& offered : g_interfaces) {
        const RPC_SERVER_INTERFACE* registered = offered.registered.load();
        if (registered == nullptr || (IfSpec != nullptr && registered != IfSpec)) continue;
        known = true;
        offered.registered.store(nullptr);
        if (WaitForCallsToComplete != 0) WaitForCalls(offered);
    }
    return known ? RPC_S_OK : RPC_S_UNKNOWN_IF;
}
