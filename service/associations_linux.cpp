#include "associations.h"

RPC_STATUS AssociationContext(RPC_BINDING_HANDLE client, void** context) {
    return I_RpcGetAssociationContext(client, context);
}

RPC_STATUS MonitorAssociation(RPC_BINDING_HANDLE client, PRPC_RUNDOWN runDown, void* context) {
    return I_RpcMonitorAssociation(client, runDown, context);
}

RPC_STATUS ClientUser(RPC_BINDING_HANDLE client, const char** user) {
    RPC_AUTHZ_HANDLE name = nullptr;
    const RPC_STATUS status = RpcBindingInqAuthClientA(client, &name, nullptr, nullptr, nullptr, nullptr);
    *user = static_cast<const char*>(name);
    return status;
}

void EndAssociations() {} // the run-time ends all of them
