// Binds and alter-contexts of a client: bind_offer.h. No state.
#include "rpc/bind_offer.h"

#include "base/lock.h"
#include "rpc/fault_status.h"

#include <algorithm>
#include <new>

namespace oriel::rpc {

namespace {

RPC_STATUS FromRejection(const ContextResult& result) {
    switch (result.reason) {
    case kInterfaceNotSupported:
        return RPC_S_UNKNOWN_IF;
    case kTransferNotSupported:
        return RPC_S_UNSUPPORTED_TRANS_SYN;
    case kLocalLimitExceeded:
        return RPC_S_SERVER_TOO_BUSY;
    default:
        return RPC_S_CALL_FAILED_DNE;
    }
}

// What the server answered to a bind (or alter-context) that offered one context and named the group.
RPC_STATUS ReadAnswer(Connection& connection, const Message& message, const RPC_CLIENT_INTERFACE& interface,
                      uint32_t& group, bool& groupUnknown) {
    TerminationHold hold; // the results are on the heap
    const Header& header = message.header;
    const bool binding = connection.contextCount == 0;
    if (header.callId != connection.callId) return RPC_S_PROTOCOL_ERROR;
    if (binding && header.type == kBindNak) {
        uint16_t reason = 0;
        if (!DecodeBindNak(message.pdu, header, reason)) return RPC_S_PROTOCOL_ERROR;
        groupUnknown = reason == kNakNotSpecified && group != 0;
        return reason == kNakLocalLimitExceeded ? RPC_S_SERVER_TOO_BUSY : RPC_S_PROTOCOL_ERROR;
    }
    BindAck ack;
    if (header.type != (binding ? kBindAck : kAlterContextResponse) || !DecodeBindAck(message.pdu, header, ack) ||
        ack.results.size() != 1)
        return RPC_S_PROTOCOL_ERROR;
    if (binding) {
        if (ack.group == 0 || (group != 0 && ack.group != group) || ack.largestReceived < kSmallestFragment)
            return RPC_S_PROTOCOL_ERROR;
        group = ack.group;
        connection.channel.largestSent = std::min(ack.largestReceived, kLargestFragment);
    }
    const ContextResult& result = ack.results[0];
    if (result.result != kAccepted) return FromRejection(result);
    if (!(result.transfer == interface.TransferSyntax)) return RPC_S_PROTOCOL_ERROR;
    connection.contexts[connection.contextCount++] = {interface.InterfaceId, interface.TransferSyntax};
    return RPC_S_OK;
}

} // namespace

RPC_STATUS OfferInterface(Connection& connection, const RPC_CLIENT_INTERFACE& interface, uint32_t& group,
                          bool& groupUnknown, int64_t deadline) {
    Channel& channel = connection.channel;
    uint8_t pdu[128];
    size_t size = 0;
    {
        TerminationHold hold;
        try {
            const Header header{.type = connection.contextCount == 0 ? kBind : kAlterContext,
                                .callId = ++connection.callId};
            const Bind bind{.group = group,
                            .elements = {{.id = static_cast<uint16_t>(connection.contextCount),
                                          .abstractSyntax = interface.InterfaceId,
                                          .transfers = {interface.TransferSyntax}}}};
            size = EncodeBind(pdu, header, bind);
        } catch (const std::bad_alloc&) {
            return RPC_S_OUT_OF_MEMORY;
        }
    }
    // A server that is full answers before it has read anything, and closes: so the answer counts even if this fails.
    const Transfer sent = SendPdu(channel, pdu, size);
    Message message;
    const Transfer received = Receive(channel, Side::client, message, deadline);
    if (received != Transfer::done)
        return StatusFromTransfer(sent != Transfer::done ? sent : received, RPC_S_SERVER_UNAVAILABLE);
    try {
        return ReadAnswer(connection, message, interface, group, groupUnknown);
    } catch (const std::bad_alloc&) {
        return RPC_S_OUT_OF_MEMORY;
    }
}

} // namespace oriel::rpc
