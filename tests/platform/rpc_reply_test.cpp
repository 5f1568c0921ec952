// A client and what a server that is none, or a broken one, may answer.
#include "rpc_kit.h"

#include <thread>
#include <tuple>

namespace {

// Takes one connection after the other and answers a bind with `ack` and a request with `answer`, both at once, as
// their client is known to send both. Then it says no more, and closes once it has read what the client sends.
class FakeServer {
public:
    FakeServer() : m_listener("test") {}

    Reply Serve(const Bytes& ack, const Bytes& answer, size_t readsOfRequest = kRequestSize) {
        std::thread server([&] {
            UnixStream stream = m_listener.Accept();
            bind = stream.ReceivePdu();
            stream.Send(Join({ack, answer}));
            if (readsOfRequest == kRequestSize) stream.EndSending();
            request = stream.Receive(readsOfRequest);
        });
        const Reply reply = m_binding.Call(kEcho, {1, 2, 3, 4});
        server.join();
        return reply;
    }

    Bytes bind;
    Bytes request;

private:
    static constexpr size_t kRequestSize = 28;
    UnixListener m_listener;
    TestBinding m_binding{"test"};
};

Bytes Ack(unsigned type = kBindAckPdu, uint32_t group = 77, uint16_t received = 4280, uint16_t result = 0,
          uint16_t reason = 0, const RPC_SYNTAX_IDENTIFIER& transfer = kNdrSyntax) {
    const Bytes port{5, 0, 't', 'e', 's', 't', 0, 0}, count{1, 0, 0, 0};
    return Pdu(type, Join({BytesOf(uint16_t{4280}, received, group), port, count, BytesOf(result, reason, transfer)}));
}

Bytes Nak(unsigned reason) {
    return Pdu(kBindNakPdu, {static_cast<uint8_t>(reason), 0, 1, 5, 0, 0, 0, 0});
}

Bytes Response(const Bytes& stub, unsigned flags = kOnly, uint32_t callId = 2, unsigned context = 0) {
    return Pdu(kResponsePdu, CallBody(context, 0, stub), flags, callId);
}

Bytes FaultPdu(uint32_t status, unsigned flags = kOnly) {
    return Pdu(kFaultPdu, CallBody(0, 0, BytesOf(status, uint32_t{0})), flags, 2);
}

} // namespace

TEST(RpcReply, AnswerToABindIsChecked) {
    FakeServer server;
    const std::tuple<const char*, Bytes, RPC_STATUS> rows[] = {
        {"too busy", Nak(2), RPC_S_SERVER_TOO_BUSY},
        {"version", Nak(4), RPC_S_PROTOCOL_ERROR},
        {"transfer syntax", Ack(kBindAckPdu, 77, 4280, 2, 2), RPC_S_UNSUPPORTED_TRANS_SYN},
        {"another transfer syntax", Ack(kBindAckPdu, 77, 4280, 0, 0, kNdr64), RPC_S_PROTOCOL_ERROR},
        {"no group", Ack(kBindAckPdu, 0), RPC_S_PROTOCOL_ERROR},
        {"another call", Changed(Ack(), 12, 9), RPC_S_PROTOCOL_ERROR},
        {"endless port", Changed(Ack(), 25, 0xFF), RPC_S_PROTOCOL_ERROR},
        {"version 4", Changed(Ack(), 0, 4), RPC_S_PROTOCOL_ERROR},
        {"nothing", {}, RPC_S_SERVER_UNAVAILABLE},
    };
    for (const auto& [what, ack, status] : rows)
        EXPECT_EQ(server.Serve(ack, {}).status, status) << what;
    EXPECT_EQ(server.Serve(Join({Pdu(kShutdownPdu, {}), Ack()}), Response({9})).body, Bytes({9}));
}

TEST(RpcReply, AnswerToARequestIsChecked) {
    FakeServer server;
    Bytes tooLarge = Response(Bytes(65000), kFirst);
    const Bytes more = Response(Bytes(65000), 0);
    while (tooLarge.size() <= (8 << 20))
        tooLarge.insert(tooLarge.end(), more.begin(), more.end());
    const std::tuple<const char*, Bytes, RPC_STATUS> rows[] = {
        {"good", Response({5, 6}), RPC_S_OK},
        {"in pieces", Join({Response({5}, kFirst), Response({}, 0), Response({6}, kLast)}), RPC_S_OK},
        {"fault", FaultPdu(RPC_X_BAD_STUB_DATA), RPC_X_BAD_STUB_DATA},
        {"fault 0", FaultPdu(0), RPC_S_CALL_FAILED},
        {"an exception as a fault", FaultPdu(0xC0000005), RPC_S_CALL_FAILED},
        {"unknown fault", FaultPdu(0x1C00FFFF), RPC_S_CALL_FAILED},
        {"nca_s_op_rng_error", FaultPdu(0x1C010002), RPC_S_PROCNUM_OUT_OF_RANGE},
        {"nca_s_fault_remote_no_memory", FaultPdu(0x1C00001B), RPC_S_SERVER_OUT_OF_MEMORY},
        {"fault, not executed", FaultPdu(0x1C000012, kOnly | kNotExecuted), RPC_S_CALL_FAILED_DNE},
        {"another call's", Response({5}, kOnly, 3), RPC_S_PROTOCOL_ERROR},
        {"another context's", Response({5}, kOnly, 2, 1), RPC_S_PROTOCOL_ERROR},
        {"not the first", Response({5}, kLast), RPC_S_PROTOCOL_ERROR},
        {"a request", Request(kEcho, {}), RPC_S_PROTOCOL_ERROR},
        {"length 23", Changed(Response({5}), 8, 23), RPC_S_PROTOCOL_ERROR},
        {"too large", tooLarge, RPC_S_PROTOCOL_ERROR},
        {"too short", Changed(Response({5}), 8, 200), RPC_S_CALL_FAILED},
    };
    for (const auto& [what, answer, status] : rows) {
        const Reply reply = server.Serve(Ack(), answer);
        EXPECT_EQ(reply.status, status) << what;
        EXPECT_EQ(reply.body, status == RPC_S_OK ? Bytes({5, 6}) : Bytes()) << what;
    }
    EXPECT_EQ(server.Serve(Ack(), {}).status, RPC_S_CALL_FAILED);
    EXPECT_EQ(server.Serve(Ack(), {}, 20).status, RPC_S_CALL_FAILED_DNE); // it has not read all of it
}

TEST(RpcReply, ClientSendsTheseBytes) {
    FakeServer server;
    EXPECT_EQ(server.Serve(Ack(), Response({9})).body, Bytes({9}));
    // Version 5.0, bind, first and last fragment, little-endian, 72 bytes, call 1; fragments, no group; one context, 0:
    // the interface in NDR.
    const auto fragment = static_cast<uint16_t>(Get16(server.bind, 16));
    EXPECT_EQ(server.bind, Pdu(kBindPdu, BindBody({{0, kTestInterface, {kNdrSyntax}}}, 0, fragment, fragment)));
    EXPECT_GE(fragment, 1432U);
    // Request, 28 bytes, call 2; 4 bytes of stub, context 0, procedure 0.
    EXPECT_EQ(server.request, Pdu(kRequestPdu, CallBody(0, kEcho, {1, 2, 3, 4}, 4), kOnly, 2));
}
