// The client's way with answers of every kind.
#include "base/timings.h"
#include "machine.h"
#include "product/ndr.h"

#include <sstream>

namespace {

// A server of the interface that answers every call with the bytes it was told.
Bytes g_reply;

void AnswerAsTold(PRPC_MESSAGE message) {
    message->BufferLength = static_cast<unsigned int>(g_reply.size());
    if (I_RpcGetBuffer(message) == RPC_S_OK)
        std::copy(g_reply.begin(), g_reply.end(), static_cast<uint8_t*>(message->Buffer));
}

CHILD_PROCESS(AnswersAsTold) {
    RPC_DISPATCH_FUNCTION functions[product::kProcedureCount];
    std::fill(std::begin(functions), std::end(functions), AnswerAsTold);
    RPC_DISPATCH_TABLE table = {product::kProcedureCount, functions, 0};
    RPC_SERVER_INTERFACE offered = {};
    offered.Length = sizeof offered;
    offered.InterfaceId = product::kInterfaceSyntax;
    offered.TransferSyntax = product::kNdrSyntax;
    offered.DispatchTable = &table;
    unsigned char protocol[] = "ncalrpc";
    unsigned char endpoint[] = "TVORSDB_RPC";
    const bool listens = RpcServerUseProtseqEpA(protocol, 10, endpoint, nullptr) == RPC_S_OK &&
                         RpcServerRegisterIf2(&offered, nullptr, nullptr, 0, 10, 0xFFFFFFFF, nullptr) == RPC_S_OK &&
                         RpcServerListen(1, 10, TRUE) == RPC_S_OK;
    child.Say(listens ? "listens" : "does not");
    for (std::string line = child.Hear(); !line.empty(); line = child.Hear()) {
        std::istringstream bytes(line);
        g_reply.assign(std::istream_iterator<int>(bytes), {});
        child.Say("set");
    }
    return 0;
}

} // namespace

// Replies of every length and with every count: an answer, or BadStubData, and never more than the buffer holds.
TEST(Client, BrokenRepliesAreFailedCalls) {
    SetUpProduct();
    TestProcess server("AnswersAsTold");
    ASSERT_EQ(server.Hear(), "listens");
    const auto reply = [&](const Bytes& bytes) {
        std::string line = " ";
        for (const int byte : bytes)
            line += std::to_string(byte) + " ";
        EXPECT_EQ(server.Ask(line), "set");
    };
    const Library library;
    DatabaseHandle handle = 0;
    product::DatabaseInfo info;
    SYSTEMTIME time = {};
    DWORD size = 0;
    Bytes buffer(8);
    const Bytes eight(8, 0x33);
    const std::tuple<const char*, Bytes, std::function<Answer()>> rows[] = {
        {"CreateDatabase", Joined({Number(5), Number(0)}), [&] { return CreateDatabase("D", &handle); }},
        {"GetDatabaseInfo", Joined({Bytes(24, 1), Number(0)}), [&] { return GetDatabaseInfo(5, &info); }},
        {"CreateVariable", Number(0), [&] { return CreateVariable(5, "V", product::kTypeNumber, 4, "abc"); }},
        {"GetWriteTime", Joined({Bytes(28, 1), Number(0)}), [&] { return GetWriteTime(5, "V", &time); }},
        {"ReadVariable", Joined({Number(8), eight, Number(8), Number(0)}),
         [&] { return ReadVariable(5, "V", buffer.data(), 8, &size); }},
        {"ReadVariable of a size", Joined({Number(0), Number(8), Number(0)}),
         [&] { return ReadVariable(5, "V", nullptr, 8, &size); }},
    };
    for (const auto& [name, good, call] : rows) {
        SCOPED_TRACE(name);
        reply(good);
        EXPECT_EQ(call(), Answer::Done);
        for (size_t length = 0; length < good.size(); ++length) {
            reply(Bytes(good.begin(), good.begin() + static_cast<int>(length)));
            EXPECT_EQ(call(), Answer::BadStubData) << length;
        }
    }
    EXPECT_EQ(buffer, eight);
    EXPECT_EQ(handle, 0u); // of the last failure
    // An array of another length than was asked for, either way; a refusal leaves the buffer alone.
    for (const uint32_t count : {0u, 7u, 9u, 0xFFFFFFFFu}) {
        reply(Joined({Number(count), Bytes(12, 0x44), Number(8), Number(0)}));
        EXPECT_EQ(ReadVariable(5, "V", buffer.data(), 8, &size), Answer::BadStubData) << count;
    }
    reply(Joined({Number(8), Bytes(8, 0x55), Number(100), Number(static_cast<uint32_t>(product::kBufferTooSmall))}));
    EXPECT_EQ(ReadVariable(5, "V", buffer.data(), 8, &size), static_cast<Answer>(product::kBufferTooSmall));
    EXPECT_EQ(size, 100u);
    EXPECT_EQ(buffer, eight);
    EXPECT_EQ(WriteVariable(5, "V", "", 0xFFFFFFFF), Answer::WrongSize) << "what no message could carry";
    // A composite is created without a value, whatever size it has.
    reply(Number(0));
    EXPECT_EQ(CreateVariable(5, "V", product::kTypeComposite, 0xFFFFFFFF, nullptr), Answer::Done);
    // Nonsense costs an open its manager and no more.
    g_timings.initialisedBound = 50;
    for (const Bytes& nonsense : {Bytes(), Bytes(200, 0xFF), Bytes(200), Joined({Number(5), Number(0xFFFFFFFC)}),
                                  Joined({Number(1), Number(0)}), Bytes(16)}) {
        reply(nonsense);
        const int32_t status = OpenStatus(kPrinter, 6);
        EXPECT_TRUE(status == TVS_E_UNAVAILABLE || status == TVS_OK) << status;
    }
}
