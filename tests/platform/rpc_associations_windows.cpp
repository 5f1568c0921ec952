// The import library of the toolchain has not the calls for associations. They are looked for in the run-time of the
// machine; where it has none, they say so.
#include "not_here.h"
#include "rpc_kit.h"

namespace {

template <typename Function>
Function Find(const char* name, Function otherwise) {
    const auto found =
        reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("RPCRT4.dll"), name)));
    return found ? found : otherwise;
}

using Monitor = RPC_STATUS(RPC_ENTRY*)(RPC_BINDING_HANDLE client, PRPC_RUNDOWN runDown, void* context);
using GetContext = RPC_STATUS(RPC_ENTRY*)(RPC_BINDING_HANDLE client, void** context);

} // namespace

void NeedsAssociations() {
    if (!GetProcAddress(GetModuleHandleA("RPCRT4.dll"), "I_RpcMonitorAssociation"))
        NotHere("the run-time's calls for associations");
}

// As a linked import would be.
extern "C" {
Monitor __imp_I_RpcMonitorAssociation =
    Find<Monitor>("I_RpcMonitorAssociation", [](auto...) { return RPC_STATUS{RPC_S_CANNOT_SUPPORT}; });
GetContext __imp_I_RpcGetAssociationContext =
    Find<GetContext>("I_RpcGetAssociationContext", [](auto...) { return RPC_STATUS{RPC_S_CANNOT_SUPPORT}; });
}
