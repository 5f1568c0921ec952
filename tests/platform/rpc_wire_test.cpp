// A server's answers to PDUs that another implementation, or none, may send.
#include "campaign.h"
#include "rpc_kit.h"

#include <tuple>

namespace {

// A connection that has been bound.
UnixStream BoundStream() {
    UnixStream stream("test");
    stream.Send(GoodBind());
    EXPECT_EQ(TypeOf(stream.ReceivePdu()), kBindAckPdu);
    return stream;
}

// The stub of the reply to a call on the connection.
Bytes CallOn(UnixStream& stream, unsigned procedure, const Bytes& stub = {}) {
    stream.Send(Request(procedure, stub));
    return StubOf(stream.ReceivePdu());
}

constexpr uint32_t kUnknownInterfaceFault = 0x1C010003;
constexpr uint32_t kProcedureFault = 0x1C010002;
constexpr uint32_t kProtocolFault = 0x1C01000B;
constexpr uint32_t kMemoryFault = 0x1C00001B;

} // namespace

TEST(RpcWire, BindOffersAreAnsweredOneByOne) {
    TestServer server;
    UnixStream stream("test");
    stream.Send(Pdu(kBindPdu, BindBody({{7, kUnknownInterface, {kNdrSyntax}},
                                        {1, kTestInterface, {kNdr64, kNdrSyntax}},
                                        {2, kTestInterface, {kNdr64}},
                                        {3, kTestInterface, {kFeatureNegotiation}},
                                        {5, kTestInterface, {}},
                                        {1, kTestInterface, {kNdrSyntax}}})));
    const Bytes ack = stream.ReceivePdu();
    EXPECT_EQ(TypeOf(ack), kBindAckPdu);
    EXPECT_EQ(Get32(ack, 16), 4280U << 16 | 4280U);
    EXPECT_NE(Get32(ack, 20), 0U);
    EXPECT_EQ(ResultsOf(ack), "2.1 0.0 2.2 3.2 2.2 0.0 ");
    stream.Send(Request(kEcho, {1, 2, 3}, kOnly, 9, 1));
    EXPECT_EQ(StubOf(stream.ReceivePdu()), Bytes({1, 2, 3}));

    // More interfaces, and the ids that are taken.
    stream.Send(Pdu(kAlterPdu, BindBody({{8, kTestInterface, {kNdrSyntax}}, {7, kUnknownInterface, {kNdrSyntax}}})));
    const Bytes altered = stream.ReceivePdu();
    EXPECT_EQ(TypeOf(altered), kAlterAckPdu);
    EXPECT_EQ(ResultsOf(altered), "0.0 2.1 ");
    stream.Send(Request(kEcho, {4}, kOnly, 10, 8));
    EXPECT_EQ(StubOf(stream.ReceivePdu()), Bytes({4}));
    for (uint16_t i = 0; i < 15; ++i) { // 16 in all
        stream.Send(Pdu(kAlterPdu, BindBody({{static_cast<uint16_t>(100 + i), kTestInterface, {kNdrSyntax}}})));
        EXPECT_EQ(ResultsOf(stream.ReceivePdu()), i < 14 ? "0.0 " : "2.3 ");
    }
}

TEST(RpcWire, BindThatCannotBeIsRefused) {
    TestServer server;
    const std::vector<Offer> good{{0, kTestInterface, {kNdrSyntax}}};
    const Offer negotiation{1, kTestInterface, {kFeatureNegotiation}};
    const auto changed = [](size_t at, unsigned value) { return Changed(GoodBind(), at, uint8_t(value)); };
    const Bytes trailer = Join({{10, 2, 0, 0, 1, 0, 0, 0}, Bytes(16)});
    const auto size = static_cast<uint8_t>(GoodBind().size());
    std::vector<std::tuple<const char*, Bytes, int>> rows{
        // with the reason, or -1 where it is accepted
        {"version 4.0", changed(0, 4), 4},
        {"version 5.1", changed(1, 1), -1},
        {"a piece of a bind", changed(3, kFirst), 0},
        {"no context", Pdu(kBindPdu, BindBody({})), 0},
        {"two negotiations", Pdu(kBindPdu, BindBody({good[0], negotiation, negotiation})), 0},
        {"unknown group", GoodBind(0x12345678), 0},
        {"tiny fragments", Pdu(kBindPdu, BindBody(good, 0, 4280, 1431)), 0},
        {"authentication", Join({Changed(changed(8, size + 24), 10, 16), trailer}), 8},
        {"more contexts than there are", changed(24, 2), 0},
    };
    for (unsigned cut = 16; cut < size; ++cut)
        rows.emplace_back("cut short", changed(8, cut), 0);
    for (const auto& [what, pdu, reason] : rows) {
        UnixStream stream("test");
        stream.Send(pdu);
        const Bytes answer = stream.ReceivePdu();
        EXPECT_EQ(TypeOf(answer), reason < 0 ? kBindAckPdu : kBindNakPdu) << what;
        EXPECT_TRUE(reason < 0 ? CallOn(stream, kEcho, {7}) == Bytes{7}
                               : static_cast<int>(Get16(answer, 16)) == reason && stream.PeerCloses())
            << what;
    }
    UnixStream twice = BoundStream();
    twice.Send(GoodBind());
    EXPECT_EQ(TypeOf(twice.ReceivePdu()), kBindNakPdu);
    EXPECT_TRUE(twice.PeerCloses());
}

// Names another process's group in a bind and says what came of it.
CHILD_PROCESS(RpcIntruder) {
    UnixStream stream("test");
    stream.Send(GoodBind(static_cast<uint32_t>(std::stoul(child.arguments[0]))));
    child.Say(TypeOf(stream.ReceivePdu()) == kBindNakPdu ? "refused" : "taken");
    return 0;
}

TEST(RpcWire, GroupIsNamedByItsMembersOnly) {
    TestServer server;
    UnixStream first("test");
    first.Send(GoodBind());
    const uint32_t group = Get32(first.ReceivePdu(), 20);
    UnixStream second("test");
    second.Send(GoodBind(group));
    EXPECT_EQ(Get32(second.ReceivePdu(), 20), group);
    EXPECT_EQ(TestProcess("RpcIntruder", {std::to_string(group)}).Hear(), "refused");
    CallOn(second, kMonitor, Number(3));
    EXPECT_EQ(CallOn(first, kMonitor, Number(3)), Number(3));
    second.Close();
    EXPECT_EQ(CallOn(first, kEcho, {1}), Bytes({1}));
    const TestBinding other; // the same process, but not by this binding's connections
    EXPECT_EQ(other.Call(kRundowns).Number(3), 0U);
    first.Close();
    EXPECT_TRUE(WaitUntil([&] { return other.Call(kRundowns).Number(3) == 1; }));
    UnixStream late("test");
    late.Send(GoodBind(group)); // of closed connections
    EXPECT_EQ(TypeOf(late.ReceivePdu()), kBindNakPdu);
}

TEST(RpcWire, RequestIsAnsweredOrRefused) {
    TestServer server;
    UnixStream stream = BoundStream();
    stream.Send(Request(kEcho, {1}, kOnly, 5, 99));
    EXPECT_EQ(FaultOf(stream.ReceivePdu()), kUnknownInterfaceFault);
    stream.Send(Request(500, {1}));
    const Bytes fault = stream.ReceivePdu();
    EXPECT_EQ(FaultOf(fault), kProcedureFault);
    EXPECT_EQ(fault[3], kOnly | kNotExecuted);
    EXPECT_EQ(Get32(fault, 12), 2U); // the call's id

    // An object's UUID lies before the stub.
    stream.Send(Request(kEcho, Join({Bytes(16, 0xEE), {1, 2}}), kOnly | kWithObject));
    EXPECT_EQ(StubOf(stream.ReceivePdu()), Bytes({1, 2}));
    // Nobody waits for the answer to a maybe call.
    stream.Send(Request(kTouch, {}, kOnly | kMaybeCall));
    EXPECT_EQ(CallOn(stream, kTouch), Number(2));

    // Cancels and orphans come when they come, and two requests in one write.
    stream.Send(Join({Pdu(kCancelPdu, {}), Pdu(kOrphanedPdu, {}), Request(kEcho, {3}), Request(kEcho, {4})}));
    EXPECT_EQ(StubOf(stream.ReceivePdu()), Bytes({3}));
    EXPECT_EQ(StubOf(stream.ReceivePdu()), Bytes({4}));
}

TEST(RpcWire, FragmentsAreJoined) {
    TestServer server;
    UnixStream stream = BoundStream();
    // One byte at a time is enough, of a bind and of fragments.
    UnixStream slow("test");
    for (const uint8_t byte : Join({GoodBind(), Request(kEcho, {1, 2}, kFirst), Request(kEcho, {3}, 0),
                                    Pdu(kCancelPdu, {}, kOnly, 2), Request(kEcho, {4}, kLast)}))
        slow.Send({byte});
    EXPECT_EQ(TypeOf(slow.ReceivePdu()), kBindAckPdu);
    EXPECT_EQ(StubOf(slow.ReceivePdu()), Bytes({1, 2, 3, 4}));
    // A call that is given up in the middle.
    stream.Send(Join({Request(kEcho, {1}, kFirst), Pdu(kOrphanedPdu, {}, kOnly, 2), Request(kEcho, {5})}));
    EXPECT_EQ(StubOf(stream.ReceivePdu()), Bytes({5}));
    // A reply in fragments that the client can take, each but the last a multiple of 8.
    stream.Send(Request(kMake, Number(10000)));
    Bytes reply;
    for (unsigned flags = 0; (flags & kLast) == 0;) {
        const Bytes pdu = stream.ReceivePdu();
        ASSERT_EQ(TypeOf(pdu), kResponsePdu);
        EXPECT_EQ(Get32(pdu, 16), 10000U - reply.size());
        EXPECT_EQ((pdu[3] & kFirst) != 0, reply.empty());
        flags = pdu[3];
        reply = Join({reply, StubOf(pdu)});
        EXPECT_TRUE(pdu.size() <= 4280 && ((flags & kLast) != 0 || pdu.size() % 8 == 0));
    }
    EXPECT_EQ(reply, Pattern(10000));
}

TEST(RpcWire, BrokenSequenceEndsItsConnectionAlone) {
    TestServer server;
    const TestBinding other;
    const auto withLength = [](const Bytes& pdu, uint8_t length, uint8_t trailer = 0) {
        return Changed(Changed(pdu, 8, length), 10, trailer);
    };
    Bytes wrongOrder = Request(kEcho, {1}, kLast);
    wrongOrder[4] = 0;
    std::swap(wrongOrder[8], wrongOrder[9]);
    std::swap(wrongOrder[12], wrongOrder[15]);
    const struct {
        const char* what;
        Bytes pdus;
        uint32_t fault = kProtocolFault; // 0: closed without a word
    } rows[] = {
        {"another call's fragment", Join({Request(kEcho, {1}, kFirst, 2), Request(kEcho, {1}, kLast, 3)})},
        {"another context's fragment", Join({Request(kEcho, {1}, kFirst), Request(kEcho, {1}, kLast, 2, 1)})},
        {"another procedure's fragment", Join({Request(kEcho, {1}, kFirst), Request(kMake, {1}, kLast)})},
        {"another byte order", Join({Request(kEcho, {1}, kFirst), wrongOrder})},
        {"two first fragments", Join({Request(kEcho, {1}, kFirst), Request(kEcho, {1}, kFirst)})},
        {"no first fragment", Request(kEcho, {1}, kLast)},
        {"a bind between fragments", Join({Request(kEcho, {1}, kFirst), GoodBind()})},
        {"above what was negotiated", Request(kEcho, Bytes(4280 - 24 + 1))},
        {"authentication trailer", withLength(Request(kEcho, Bytes(24)), 48, 16)},
        {"trailer longer than the fragment", withLength(Request(kEcho, {}), 24, 9)},
        {"shorter than its header", withLength(Request(kEcho, {}), 23)},
        {"length 0", withLength(Request(kEcho, {}), 0)},
        {"no room for the object", Request(kEcho, Bytes(15), kOnly | kWithObject)},
        {"a response", Pdu(kResponsePdu, CallBody(0, 0, {})), 0},
        {"alter-context without contexts", Pdu(kAlterPdu, BindBody({})), 0},
    };
    for (const auto& row : rows) {
        UnixStream stream = BoundStream();
        stream.Send(row.pdus);
        EXPECT_EQ(FaultOf(stream.ReceivePdu()), row.fault) << row.what;
        EXPECT_TRUE(stream.PeerCloses()) << row.what;
    }
    UnixStream early("test");
    early.Send(Request(kEcho, {1})); // before any bind
    EXPECT_TRUE(early.PeerCloses());
    UnixStream endless = BoundStream();
    const Bytes piece = Request(kEcho, Bytes(4256), 0);
    Bytes first = piece;
    first[3] = kFirst;
    bool taken = endless.Send(first);
    for (size_t sent = 4256; taken && sent < (12 << 20); sent += 4256)
        taken = endless.Send(piece);
    EXPECT_FALSE(taken);
    EXPECT_EQ(FaultOf(endless.ReceivePdu()), kMemoryFault);
    EXPECT_EQ(other.Number(kTouch), 1U);
}

TEST(RpcWire, SlowAndSilentClientsStallNobody) {
    TestServer server;
    server.Order("hurry");
    const TestBinding binding;
    std::vector<UnixStream> slow;
    for (ptrdiff_t i = 0; i < 64; ++i) {
        slow.push_back(i % 2 == 0 ? UnixStream("test") : BoundStream());
        const Bytes message = i % 2 == 0 ? GoodBind() : Request(kEcho, Bytes(100));
        slow.back().Send(Bytes(message.begin(), message.begin() + i % 40));
    }
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(binding.Call(kEcho, Pattern(60)).body, Pattern(60));
    // A message that was begun has to be finished in time, and a client that connects has to bind.
    for (UnixStream& stream : slow)
        EXPECT_TRUE(stream.PeerCloses(5000)) << &stream - slow.data();
    EXPECT_EQ(binding.Call(kEcho, Pattern(60)).body, Pattern(60));
}

// A user may have 4,096 at a time, and any number one after the other.
TEST(RpcWire, ConnectionsOfOneUserAreGivenBack) {
    TestServer server;
    for (int count = 1; count <= 4100; ++count) {
        UnixStream stream("test");
        ASSERT_TRUE(stream.Send(GoodBind()));
        ASSERT_EQ(TypeOf(stream.ReceivePdu()), kBindAckPdu) << count;
    }
}

TEST(RpcWireCampaign, DamagedPdusLeaveTheServerWhole) {
    TestServer server;
    const TestBinding binding;
    // Every beginning of a PDU, and every byte changed (of these a part, outside a campaign).
    const auto damage = [](const Bytes& before, const Bytes& pdu, const Bytes& after = {}) {
        std::vector<Bytes> all;
        int changes = 0;
        for (size_t at = 0; at < pdu.size(); ++at) {
            all.emplace_back(&pdu[0], &pdu[at]);
            for (const int value : {0x00, 0x01, 0x7F, 0x80, 0xFF, pdu[at] ^ 0x80, pdu[at] + 1, pdu[at] - 1})
                if (++changes % Rounds(3, 1) == 0) all.push_back(Changed(pdu, at, static_cast<uint8_t>(value)));
        }
        for (const Bytes& damaged : all) {
            UnixStream stream("test");
            stream.Send(before);
            if (!before.empty()) stream.ReceivePdu();
            stream.Send(Join({damaged, after}));
            stream.EndSending();
            stream.ReceiveAll(); // whatever it says, it ends
        }
    };
    damage({}, GoodBind());
    damage(GoodBind(), Pdu(kAlterPdu, BindBody({{1, kTestInterface, {kNdr64, kNdrSyntax}}})));
    damage(GoodBind(), Request(kEcho, Join({Bytes(16), {1, 2, 3, 4}}), kOnly | kWithObject));
    damage(GoodBind(), Request(kEcho, {1, 2, 3, 4}, kFirst), Request(kEcho, {5}, kLast));
    EXPECT_EQ(binding.Call(kEcho, {9}).body, Bytes({9}));
    EXPECT_TRUE(server.Running());
}
