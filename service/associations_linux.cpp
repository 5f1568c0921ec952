// Our run-time has associations and exports the calls. No state.
#include "associations.h"

CallersAssociation::CallersAssociation(RPC_BINDING_HANDLE client) : m_client(client) {}

CallersAssociation::~CallersAssociation() = default;

RPC_STATUS CallersAssociation::Context(void** context) const {
    return I_RpcGetAssociationContext(m_client, context);
}

RPC_STATUS CallersAssociation::Monitor(PRPC_RUNDOWN runDown, void* context) const {
    return I_RpcMonitorAssociation(m_client, runDown, context);
}

DWORD CallersAssociation::Process() const {
    ULONG process = 0;
    return I_RpcBindingInqLocalClientPID(m_client, &process) == RPC_S_OK ? process : 0;
}

RPC_STATUS CallersAssociation::User(const char** user) const {
    RPC_AUTHZ_HANDLE name = nullptr;
    const RPC_STATUS status = RpcBindingInqAuthClientA(m_client, &name, nullptr, nullptr, nullptr, nullptr);
    *user = static_cast<const char*>(name);
    return status;
}

void EndAssociations() {} // the run-time ends all of them
