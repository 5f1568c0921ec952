// The message calls. Their handle selects a server's call (server_call.cpp) or a client's binding, whose buffer,
// request and reply are handled here. State: the thread's connection (association.h), which the message names in
// ReservedForRuntime from I_RpcGetBuffer to I_RpcFreeBuffer.
//
// This is the path of every call: no lock, no allocation and no system call besides one send and one receive, while the
// message fits the connection's buffers and the connection lives.
#include "base/timings.h"
#include "rpc/association.h"
#include "rpc/binding.h"
#include "rpc/endpoint.h"
#include "rpc/fault_status.h"

#include <algorithm>

namespace oriel::rpc {
namespace {

constexpr unsigned kFlagsValid = 0x8000; // set by interface compilers in the procedure number

const RPC_CLIENT_INTERFACE& Interface(const RPC_MESSAGE& message) {
    return *static_cast<const RPC_CLIENT_INTERFACE*>(message.RpcInterfaceInformation);
}

void ForgetBuffer(RPC_MESSAGE& message, Connection& connection) {
    connection.busy = false;
    message.Buffer = nullptr;
    message.BufferLength = 0;
    message.ReservedForRuntime = nullptr;
    if (IsBulky(connection.channel)) Trim(connection.channel);
}

RPC_STATUS ReadFault(const Message& reply) {
    CallHeader call;
    uint32_t fault = 0;
    if (!DecodeFault(reply.pdu, reply.header, call, fault)) return RPC_S_PROTOCOL_ERROR;
    return StatusFromFault(fault, (reply.header.flags & kDidNotExecute) != 0);
}

// The fault that a server left when it closed the connection before it had the whole request; RPC_S_OK when it left
// none.
RPC_STATUS Refusal(Connection& connection) {
    Message reply;
    if (Receive(connection.channel, Side::Client, reply, MonotonicNs()) != Transfer::Done) return RPC_S_OK;
    return reply.header.type == kFault && reply.header.callId == connection.callId ? ReadFault(reply) : RPC_S_OK;
}

RPC_STATUS SendOnce(RPC_MESSAGE& message, Connection& connection, Transfer& sent) {
    const Header header{.type = kRequest, .callId = ++connection.callId};
    const CallHeader call{.contextId = connection.contextId,
                          .procedure = static_cast<uint16_t>(message.ProcNum & ~kFlagsValid)};
    sent = Send(connection.channel, header, call, message.BufferLength);
    if (sent == Transfer::Done) return RPC_S_OK;
    // No server has the whole request, so none has executed it.
    const RPC_STATUS refused = Refusal(connection);
    LoseConnection(connection);
    if (refused != RPC_S_OK) return refused;
    return sent == Transfer::NoMemory ? RPC_S_OUT_OF_MEMORY : RPC_S_CALL_FAILED_DNE;
}

RPC_STATUS ReceiveReply(RPC_MESSAGE& message, Connection& connection) {
    Message reply;
    // Unbounded, unless the binding has a limit: a call lasts as long as the server needs, and some need long. The end
    // of the server or of the connection is noticed at once; a thread that is terminated here holds nothing.
    const Transfer received = Receive(connection.channel, Side::Client, reply, connection.deadline);
    if (received == Transfer::TimedOut) {
        connection.isLate = true; // TakeConnection replaces it
        return RPC_S_CALL_CANCELLED;
    }
    // Reset: the server had not read the whole request.
    RPC_STATUS status =
        StatusFromTransfer(received, received == Transfer::Reset ? RPC_S_CALL_FAILED_DNE : RPC_S_CALL_FAILED);
    if (status == RPC_S_OK) {
        if (reply.header.callId != connection.callId) {
            status = RPC_S_PROTOCOL_ERROR;
        } else if (reply.header.type == kResponse && reply.call.contextId == connection.contextId) {
            message.Buffer = reply.body;
            message.BufferLength = static_cast<unsigned>(reply.length);
            message.DataRepresentation = reply.header.representation;
            return RPC_S_OK;
        } else if (reply.header.type == kFault) {
            status = ReadFault(reply);
            if (status != RPC_S_PROTOCOL_ERROR) return status; // the connection is still usable
        } else {
            status = RPC_S_PROTOCOL_ERROR;
        }
    }
    LoseConnection(connection);
    return status;
}

// An error at the deadline counts as a time-out.
RPC_STATUS OrCancelled(RPC_STATUS status, int64_t deadline) {
    return status != RPC_S_OK && deadline != kNever && LeftMs(deadline) == 0 ? RPC_S_CALL_CANCELLED : status;
}

// A stopped server accepts what fits its socket, and no more.
void LimitTimes(Connection& connection) {
    const auto usual = static_cast<int>(g_timings.rpcSend);
    const int left = connection.deadline != kNever ? std::max(LeftMs(connection.deadline), 1) : usual;
    const bool shorter = left < usual;
    if (!shorter && !connection.sendTimeIsShort) return;
    SetSendTime(connection.channel.socket, std::min(left, usual));
    connection.sendTimeIsShort = shorter;
}

RPC_STATUS Call(RPC_MESSAGE& message, Connection& connection) {
    LimitTimes(connection);
    Transfer sent = Transfer::Done;
    RPC_STATUS status = SendOnce(message, connection, sent);
    if (sent == Transfer::Closed || sent == Transfer::Reset) {
        if (status != RPC_S_CALL_FAILED_DNE) return status;
        // Dead since its last call, for instance because the service restarted. The request is still in the buffer.
        status = Establish(connection, Interface(message));
        if (status == RPC_S_OK) status = SendOnce(message, connection, sent);
    }
    return status == RPC_S_OK ? ReceiveReply(message, connection) : status;
}

RPC_STATUS GetRequestBuffer(RPC_MESSAGE& message) {
    if (message.RpcInterfaceInformation == nullptr || (message.ProcNum & ~kFlagsValid) > 0x7FFF)
        return RPC_S_INVALID_ARG;
    if (message.RpcFlags != 0) return RPC_S_CANNOT_SUPPORT;
    if (message.BufferLength > kLargestBody) return RPC_S_OUT_OF_MEMORY;
    const Binding& binding = *static_cast<Binding*>(message.Handle);
    const uint32_t timeMs = binding.callTimeMs.load(std::memory_order_relaxed);
    const int64_t deadline = timeMs != 0 ? DeadlineAfter(timeMs) : kNever;
    Connection* connection = nullptr;
    const RPC_STATUS status = TakeConnection(*binding.association, Interface(message), deadline, connection);
    if (status != RPC_S_OK) return OrCancelled(status, deadline);
    if (!ReserveBody(connection->channel, message.BufferLength)) return RPC_S_OUT_OF_MEMORY;
    connection->busy = true;
    connection->room = message.BufferLength;
    message.Buffer = Body(connection->channel);
    message.ReservedForRuntime = connection;
    return RPC_S_OK;
}

RPC_STATUS SendRequest(RPC_MESSAGE& message) {
    auto* connection = static_cast<Connection*>(message.ReservedForRuntime);
    if (connection == nullptr || !connection->busy) return RPC_S_INVALID_ARG;
    const RPC_STATUS status = message.BufferLength <= connection->room
                                  ? OrCancelled(Call(message, *connection), connection->deadline)
                                  : RPC_S_INVALID_BOUND;
    if (status != RPC_S_OK) ForgetBuffer(message, *connection);
    return status;
}

RPC_STATUS FreeReply(RPC_MESSAGE& message) {
    auto* connection = static_cast<Connection*>(message.ReservedForRuntime);
    if (connection == nullptr) return RPC_S_INVALID_ARG;
    ForgetBuffer(message, *connection);
    return RPC_S_OK;
}

} // namespace
} // namespace oriel::rpc

using namespace oriel::rpc;

RPC_STATUS RPC_ENTRY I_RpcGetBuffer(RPC_MESSAGE* Message) {
    if (Message == nullptr) return RPC_S_INVALID_ARG;
    if (IsKind(Message->Handle, HandleKind::Binding)) return GetRequestBuffer(*Message);
    if (IsKind(Message->Handle, HandleKind::Call)) return GetReplyBuffer(*Message);
    return RPC_S_INVALID_BINDING;
}

RPC_STATUS RPC_ENTRY I_RpcSendReceive(RPC_MESSAGE* Message) {
    if (Message == nullptr) return RPC_S_INVALID_ARG;
    return IsKind(Message->Handle, HandleKind::Binding) ? SendRequest(*Message) : RPC_S_INVALID_BINDING;
}

RPC_STATUS RPC_ENTRY I_RpcFreeBuffer(RPC_MESSAGE* Message) {
    if (Message == nullptr) return RPC_S_INVALID_ARG;
    return IsKind(Message->Handle, HandleKind::Binding) ? FreeReply(*Message) : RPC_S_INVALID_BINDING;
}
