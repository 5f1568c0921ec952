// The calls for associations are looked for in the run-time of the machine: the toolchain's import library has them
// not, or decorated for another count of parameters, and not every implementation has them. Where it has none, all
// clients count as one process, which ends with the service: nothing of a client that died is released before.
//
// State: the one process's context.
#include "associations.h"

#include "lock.h"

namespace {

using GetContext = RPC_STATUS(RPC_ENTRY*)(RPC_BINDING_HANDLE client, void** context);
using Monitor = RPC_STATUS(RPC_ENTRY*)(RPC_BINDING_HANDLE client, PRPC_RUNDOWN runDown, void* context);

template <typename Function>
Function Find(const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("RPCRT4.dll"), name)));
}

const auto g_getContext = Find<GetContext>("I_RpcGetAssociationContext");
const auto g_monitor = Find<Monitor>("I_RpcMonitorAssociation");

Lock g_lock;
void* g_context GUARDED_BY(g_lock) = nullptr;
PRPC_RUNDOWN g_runDown GUARDED_BY(g_lock) = nullptr;

} // namespace

RPC_STATUS AssociationContext(RPC_BINDING_HANDLE client, void** context) {
    if (g_getContext && g_monitor) return g_getContext(client, context);
    LockHold hold{g_lock};
    *context = g_context;
    return RPC_S_OK;
}

RPC_STATUS MonitorAssociation(RPC_BINDING_HANDLE client, PRPC_RUNDOWN runDown, void* context) {
    if (g_getContext && g_monitor) return g_monitor(client, runDown, context);
    LockHold hold{g_lock};
    g_context = context;
    g_runDown = runDown;
    return RPC_S_OK;
}

RPC_STATUS ClientUser(RPC_BINDING_HANDLE client, const char** user) {
    RPC_AUTHZ_HANDLE name = nullptr;
    const RPC_STATUS status = RpcBindingInqAuthClientA(client, &name, nullptr, nullptr, nullptr, nullptr);
    if (status != RPC_S_OK && status != RPC_S_BINDING_HAS_NO_AUTH) return status;
    // Those that the run-time does not name have one account in common.
    *user = name ? static_cast<const char*>(name) : "";
    return RPC_S_OK;
}

void EndAssociations() {
    LockHold hold{g_lock};
    if (g_context) g_runDown(g_context);
    g_context = nullptr;
}
