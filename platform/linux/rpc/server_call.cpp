// What a dispatch function may call: its reply buffer, the identity of its client, its context for the client, and
// raising a failure. State: the thread's connection.
#include "base/call.h"
#include "rpc/server.h"
#include "security/credentials.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <oriel_reply.h>

namespace oriel::rpc {

thread_local constinit ServerConnection* t_connection __attribute__((tls_model("initial-exec"))) = nullptr;

RPC_STATUS FindCall(RPC_BINDING_HANDLE handle, ServerConnection*& connection) {
    if (handle == nullptr) {
        connection = t_connection;
        return connection != nullptr && connection->calling.load(std::memory_order_relaxed) != nullptr
                   ? RPC_S_OK
                   : RPC_S_NO_CALL_ACTIVE;
    }
    if (IsKind(handle, HandleKind::Binding)) return RPC_S_WRONG_KIND_OF_BINDING;
    if (!IsKind(handle, HandleKind::Call)) return RPC_S_INVALID_BINDING;
    connection = static_cast<ServerConnection*>(handle);
    return RPC_S_OK;
}

RPC_STATUS GetReplyBuffer(RPC_MESSAGE& message) {
    auto& connection = *static_cast<ServerConnection*>(message.Handle);
    if (message.BufferLength > kLargestBody || !ReserveBody(connection.channel, message.BufferLength))
        return RPC_S_OUT_OF_MEMORY;
    connection.replied = true;
    connection.replyRoom = message.BufferLength;
    message.Buffer = Body(connection.channel);
    return RPC_S_OK;
}

namespace {

// The process id at connect time.
bool ClientCredentials(const ServerConnection& connection, Credentials& credentials) {
    credentials = {connection.client.uid, connection.client.gid, {}};
    socklen_t size = 0;
    // An empty buffer asks for the size needed.
    const int socket = connection.channel.socket;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, nullptr, &size) == 0) return true;
    if (errno != ERANGE) return false;
    credentials.groups.resize(size / sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, credentials.groups.data(), &size) != 0) return false;
    std::sort(credentials.groups.begin(), credentials.groups.end());
    return true;
}

} // namespace
} // namespace oriel::rpc

using namespace oriel::rpc;

BOOL WINAPI OrielAfterReply(void(WINAPI* step)()) {
    ServerConnection* connection = nullptr;
    if (FindCall(nullptr, connection) != RPC_S_OK) return oriel::Fail(ERROR_INVALID_FUNCTION);
    connection->afterReply = step;
    return TRUE;
}

RPC_STATUS RPC_ENTRY RpcBindingInqAuthClientA(RPC_BINDING_HANDLE ClientBinding, RPC_AUTHZ_HANDLE* Privs,
                                              RPC_CSTR* ServerPrincName, ULONG* AuthnLevel, ULONG* AuthnSvc,
                                              ULONG* AuthzSvc) {
    ServerConnection* connection = nullptr;
    const RPC_STATUS status = FindCall(ClientBinding, connection);
    if (status != RPC_S_OK) return status;
    if (Privs != nullptr) *Privs = connection->identity;
    if (ServerPrincName != nullptr) *ServerPrincName = nullptr;
    if (AuthnLevel != nullptr) *AuthnLevel = RPC_C_AUTHN_LEVEL_PKT_PRIVACY;
    if (AuthnSvc != nullptr) *AuthnSvc = RPC_C_AUTHN_WINNT;
    if (AuthzSvc != nullptr) *AuthzSvc = RPC_C_AUTHZ_NONE;
    return RPC_S_OK;
}

RPC_STATUS RPC_ENTRY RpcImpersonateClient(RPC_BINDING_HANDLE BindingHandle) {
    ServerConnection* connection = nullptr;
    if (const RPC_STATUS status = FindCall(BindingHandle, connection); status != RPC_S_OK) return status;
    try {
        auto client = std::make_unique<oriel::Credentials>();
        if (!ClientCredentials(*connection, *client)) return RPC_S_CANNOT_SUPPORT;
        oriel::SpeakFor(std::move(client));
        return RPC_S_OK;
    } catch (const std::bad_alloc&) {
        return RPC_S_OUT_OF_MEMORY;
    }
}

RPC_STATUS RPC_ENTRY RpcRevertToSelf(void) {
    oriel::SpeakFor(nullptr);
    return RPC_S_OK;
}

RPC_STATUS RPC_ENTRY I_RpcBindingInqLocalClientPID(RPC_BINDING_HANDLE Binding, ULONG* Pid) {
    if (Pid == nullptr) return RPC_S_INVALID_ARG;
    ServerConnection* connection = nullptr;
    const RPC_STATUS status = FindCall(Binding, connection);
    if (status == RPC_S_OK) *Pid = static_cast<ULONG>(connection->client.pid);
    return status;
}

RPC_STATUS RPC_ENTRY I_RpcMonitorAssociation(RPC_BINDING_HANDLE Handle, PRPC_RUNDOWN RundownRoutine, void* Context) {
    if (RundownRoutine == nullptr) return RPC_S_INVALID_ARG;
    ServerConnection* connection = nullptr;
    const RPC_STATUS status = FindCall(Handle, connection);
    if (status != RPC_S_OK) return status;
    connection->group->context.store(Context);
    connection->group->rundown.store(RundownRoutine);
    return RPC_S_OK;
}

RPC_STATUS RPC_ENTRY I_RpcGetAssociationContext(RPC_BINDING_HANDLE BindingHandle, void** AssociationContext) {
    if (AssociationContext == nullptr) return RPC_S_INVALID_ARG;
    ServerConnection* connection = nullptr;
    const RPC_STATUS status = FindCall(BindingHandle, connection);
    if (status == RPC_S_OK) *AssociationContext = connection->group->context.load(std::memory_order_acquire);
    return status;
}

void RPC_ENTRY RpcRaiseException(RPC_STATUS exception) {
    throw Raised{exception};
}
