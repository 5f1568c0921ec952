// The message calls, sorted by what their handle is: a client's binding or a server's call.
#include "rpc/binding.h"
#include "rpc/call.h"

using namespace oriel::rpc;

RPC_STATUS RPC_ENTRY I_RpcGetBuffer(RPC_MESSAGE* Message) {
    if (Message == nullptr) return RPC_S_INVALID_ARG;
    if (IsKind(Message->Handle, HandleKind::binding)) return GetRequestBuffer(*Message);
    if (IsKind(Message->Handle, HandleKind::call)) return GetReplyBuffer(*Message);
    return RPC_S_INVALID_BINDING;
}

RPC_STATUS RPC_ENTRY I_RpcSendReceive(RPC_MESSAGE* Message) {
    if (Message == nullptr) return RPC_S_INVALID_ARG;
    return IsKind(Message->Handle, HandleKind::binding) ? SendRequest(*Message) : RPC_S_INVALID_BINDING;
}

RPC_STATUS RPC_ENTRY I_RpcFreeBuffer(RPC_MESSAGE* Message) {
    if (Message == nullptr) return RPC_S_INVALID_ARG;
    return IsKind(Message->Handle, HandleKind::binding) ? FreeReply(*Message) : RPC_S_INVALID_BINDING;
}
