// The thread of one connection: waits for a PDU, handles it, answers, and waits again. State: the connection.
//
// A client is another process and may send anything. An error ends its connection and affects nobody else: no wait here
// holds a lock.
#include "base/timings.h"
#include "rpc/fault_status.h"
#include "rpc/server.h"

#include <algorithm>
#include <cxxabi.h>
#include <new>
#include <unistd.h>
#include <utility>

namespace oriel::rpc {
namespace {

bool Answered(Transfer result) {
    return result == Transfer::Done;
}

// Answers other than responses use the send buffer, because their size depends on the request.
bool Answer(ServerConnection& connection, const Message& message, uint8_t type, size_t largest, auto encode) {
    Channel& channel = connection.channel;
    if (!ReserveBody(channel, largest)) return false;
    const Header header{.type = type, .callId = message.header.callId};
    const size_t size = encode(std::span(channel.out.data, channel.out.capacity), header);
    return size != 0 && Answered(SendPdu(channel, channel.out.data, size));
}

bool SendNak(ServerConnection& connection, const Message& message, BindNakReason reason) {
    return Answer(connection, message, kBindNak, kFaultSize,
                  [&](std::span<uint8_t> out, const Header& header) { return EncodeBindNak(out, header, reason); });
}

bool SendFault(ServerConnection& connection, const Message& message, RPC_STATUS status, bool executed) {
    return Answer(connection, message, kFault, kFaultSize, [&](std::span<uint8_t> out, Header header) {
        if (!executed) header.flags |= kDidNotExecute;
        return EncodeFault(out, header, {.contextId = message.call.contextId}, FaultFromStatus(status));
    });
}

// Sends the reason where the protocol has one. The connection ends in any case.
void Refuse(ServerConnection& connection, const Message& message, Transfer why) {
    const bool isBind = message.header.type == kBind;
    const bool isRequest = message.header.type == kRequest && connection.group != nullptr;
    switch (why) {
    case Transfer::WrongVersion:
        if (isBind) SendNak(connection, message, kNakVersionNotSupported);
        break;
    case Transfer::Authenticated:
        if (isBind) SendNak(connection, message, kNakAuthenticationNotRecognized);
        [[fallthrough]];
    case Transfer::Malformed:
        if (isRequest) SendFault(connection, message, RPC_S_PROTOCOL_ERROR, false);
        break;
    case Transfer::TooLarge:
    case Transfer::NoMemory:
        if (isRequest) SendFault(connection, message, RPC_S_SERVER_OUT_OF_MEMORY, false);
        break;
    case Transfer::Done:
    case Transfer::Closed:
    case Transfer::Reset:
    case Transfer::TimedOut:
        break;
    }
}

const OfferedInterface* FindContext(const ServerConnection& connection, uint16_t id) {
    for (unsigned i = 0; i < connection.contextCount; ++i)
        if (connection.contexts[i].id == id) return connection.contexts[i].offered;
    return nullptr;
}

ContextResult JudgeContext(ServerConnection& connection, const ContextElement& element) {
    ContextResult result{.result = kProviderRejection, .reason = kInterfaceNotSupported};
    uint16_t features = 0;
    if (element.transfers.size() == 1 && IsFeatureNegotiation(element.transfers[0], features))
        return {.result = kNegotiateAck, .reason = static_cast<uint16_t>(features & kKeepConnectionOnOrphan)};
    const OfferedInterface* offered = FindInterface(element.abstractSyntax);
    const RPC_SERVER_INTERFACE* registered = offered != nullptr ? offered->registered.load() : nullptr;
    if (registered == nullptr) return result;
    if (std::ranges::find(element.transfers, registered->TransferSyntax) == element.transfers.end()) {
        result.reason = kTransferNotSupported;
        return result;
    }
    const OfferedInterface* known = FindContext(connection, element.id);
    if (known != nullptr && known != offered) {
        result.reason = kReasonNotSpecified; // an id stays with one interface as long as the connection lives
        return result;
    }
    if (known == nullptr) {
        if (connection.contextCount == kMaxServerContexts) {
            result.reason = kLocalLimitExceeded;
            return result;
        }
        connection.contexts[connection.contextCount++] = {element.id, offered};
    }
    return {.result = kAccepted, .reason = 0, .transfer = registered->TransferSyntax};
}

bool IsOneNegotiation(const Bind& bind) {
    uint16_t features = 0;
    return std::ranges::count_if(bind.elements, [&](const ContextElement& element) {
               return element.transfers.size() == 1 && IsFeatureNegotiation(element.transfers[0], features);
           }) <= 1;
}

bool HandleBind(ServerConnection& connection, const Message& message) {
    Channel& channel = connection.channel;
    Bind bind;
    if (connection.group != nullptr || (message.header.flags & kOnlyFragment) != kOnlyFragment ||
        !DecodeBind(message.pdu, message.header, bind) || bind.elements.empty() || !IsOneNegotiation(bind) ||
        bind.largestReceived < kSmallestFragment) {
        SendNak(connection, message, kNakNotSpecified);
        return false;
    }
    connection.group = JoinGroup(bind.group, connection.client.uid, connection.client.pid);
    if (connection.group == nullptr) {
        SendNak(connection, message, kNakNotSpecified);
        return false;
    }
    channel.largestSent = std::min(bind.largestReceived, kLargestFragment);
    channel.largestReceived = std::clamp(bind.largestSent, kSmallestFragment, kLargestFragment);
    BindAck ack{.largestSent = channel.largestSent,
                .largestReceived = channel.largestReceived,
                .group = connection.group->id,
                .port = connection.endpoint->name};
    for (const ContextElement& element : bind.elements)
        ack.results.push_back(JudgeContext(connection, element));
    return Answer(connection, message, kBindAck, 128 + 24 * ack.results.size(),
                  [&](std::span<uint8_t> out, const Header& header) { return EncodeBindAck(out, header, ack); });
}

bool HandleAlterContext(ServerConnection& connection, const Message& message) {
    Bind bind;
    if (connection.group == nullptr || (message.header.flags & kOnlyFragment) != kOnlyFragment ||
        !DecodeBind(message.pdu, message.header, bind) || bind.elements.empty() || !IsOneNegotiation(bind))
        return false;
    BindAck ack{.largestSent = connection.channel.largestSent,
                .largestReceived = connection.channel.largestReceived,
                .group = connection.group->id};
    for (const ContextElement& element : bind.elements)
        ack.results.push_back(JudgeContext(connection, element));
    return Answer(connection, message, kAlterContextResponse, 128 + 24 * ack.results.size(),
                  [&](std::span<uint8_t> out, const Header& header) { return EncodeBindAck(out, header, ack); });
}

// RPC_S_OK, or why the call failed.
RPC_STATUS CallFunction(RPC_DISPATCH_FUNCTION function, RPC_MESSAGE& call) {
    try {
        function(&call);
        return RPC_S_OK;
    } catch (const Raised& raised) {
        return raised.status > 0 ? raised.status : RPC_S_CALL_FAILED;
    } catch (const std::bad_alloc&) {
        return RPC_S_OUT_OF_MEMORY;
    } catch (const abi::__forced_unwind&) {
        throw; // the end of the thread is not a failure of the call
    } catch (...) {
        return RPC_S_CALL_FAILED; // like Windows, for an exception of any kind
    }
}

bool SendReply(ServerConnection& connection, const Message& message, size_t length) {
    const Header header{.type = kResponse, .callId = message.header.callId};
    return Answered(Send(connection.channel, header, {.contextId = message.call.contextId}, length));
}

// With `calling` set, so that the interface cannot be unregistered meanwhile.
bool CarryOut(ServerConnection& connection, const Message& message, const OfferedInterface& offered) {
    const RPC_SERVER_INTERFACE* registered = offered.registered.load();
    if (registered == nullptr) return SendFault(connection, message, RPC_S_UNKNOWN_IF, false);
    const RPC_DISPATCH_TABLE& table = *registered->DispatchTable;
    const unsigned procedure = message.call.procedure;
    if (procedure >= table.DispatchTableCount || table.DispatchTable[procedure] == nullptr)
        return SendFault(connection, message, RPC_S_PROCNUM_OUT_OF_RANGE, false);
    if (message.length > offered.largestRequest) return SendFault(connection, message, RPC_S_ACCESS_DENIED, false);

    RPC_MESSAGE call{};
    call.Handle = &connection;
    call.DataRepresentation = message.header.representation;
    call.Buffer = message.body;
    call.BufferLength = static_cast<unsigned>(message.length);
    call.ProcNum = procedure;
    call.TransferSyntax = const_cast<RPC_SYNTAX_IDENTIFIER*>(&registered->TransferSyntax);
    call.RpcInterfaceInformation = const_cast<RPC_SERVER_INTERFACE*>(registered);
    call.ManagerEpv = offered.managers;
    connection.replied = false;
    RPC_STATUS status = CallFunction(table.DispatchTable[procedure], call);
    if (status == RPC_S_OK && connection.replied && call.BufferLength > connection.replyRoom)
        status = RPC_S_INTERNAL_ERROR;
    if ((message.header.flags & kMaybe) != 0) return true; // its client waits for nothing
    if (status != RPC_S_OK) return SendFault(connection, message, status, true);
    return SendReply(connection, message, connection.replied ? call.BufferLength : 0);
}

bool HandleRequest(ServerConnection& connection, const Message& message) {
    if (connection.group == nullptr) return false;
    const OfferedInterface* offered = FindContext(connection, message.call.contextId);
    if (offered == nullptr) return SendFault(connection, message, RPC_S_UNKNOWN_IF, false);
    connection.calling.store(offered);
    const bool goesOn = ReserveBody(connection.channel, kFaultSize) && CarryOut(connection, message, *offered);
    if (const auto step = std::exchange(connection.afterReply, nullptr)) step();
    connection.calling.store(nullptr, std::memory_order_release);
    if (IsBulky(connection.channel)) Trim(connection.channel);
    return goesOn;
}

bool Handle(ServerConnection& connection, const Message& message) {
    switch (message.header.type) {
    case kRequest:
        return HandleRequest(connection, message);
    case kBind:
        return HandleBind(connection, message);
    case kAlterContext:
        return HandleAlterContext(connection, message);
    default:
        return false; // not valid from a client without authentication
    }
}

} // namespace

void ServeConnection(ServerConnection& connection) {
    t_connection = &connection;
    connection.kind = HandleKind::Call;
    // A client connects in order to bind. After that it may be silent for as long as it likes.
    const int64_t bindDeadline = DeadlineAfter(g_timings.rpcMessage);
    try {
        for (;;) {
            Message message{};
            const Transfer result =
                Receive(connection.channel, Side::Server, message, connection.group != nullptr ? kNever : bindDeadline);
            if (result != Transfer::Done) {
                Refuse(connection, message, result);
                break;
            }
            if (!Handle(connection, message)) break;
        }
    } catch (const std::bad_alloc&) {
        // A bind that failed for lack of memory.
    }
    connection.kind = HandleKind::Free;
    t_connection = nullptr;
    ForgetConnection(connection);
    CloseSocket(connection.channel);
    FreeBuffers(connection.channel);
    if (connection.group != nullptr) LeaveGroup(connection.group);
    DismissUser(connection.user);
}

void RefuseConnection(int socket) {
    // Nothing has been read, so the call id is a guess: clients begin with 1.
    uint8_t nak[kFaultSize];
    const size_t size = EncodeBindNak(nak, {.type = kBindNak, .callId = 1}, kNakLocalLimitExceeded);
    send(socket, nak, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    close(socket);
}

} // namespace oriel::rpc
