// Calls as a stub makes them, to a server in another process.
#include "campaign.h"
#include "rpc_kit.h"

#include <algorithm>
#include <thread>

namespace {

RPC_CSTR Text(const char* text) {
    return reinterpret_cast<RPC_CSTR>(const_cast<char*>(text));
}

RPC_STATUS Bind(const char* string) {
    RPC_BINDING_HANDLE handle = nullptr;
    const RPC_STATUS status = RpcBindingFromStringBindingA(Text(string), &handle);
    EXPECT_EQ(handle != nullptr, status == RPC_S_OK);
    EXPECT_EQ(RpcBindingFree(&handle), status == RPC_S_OK ? RPC_S_OK : RPC_S_INVALID_BINDING);
    return status;
}

} // namespace

TEST(RpcBinding, StringIsMadeOfItsParts) {
    RPC_CSTR string = nullptr;
    ASSERT_EQ(RpcStringBindingComposeA(nullptr, Text("ncalrpc"), nullptr, Text("TEST_RPC"),
                                       Text("Security=impersonation static true"), &string),
              RPC_S_OK);
    EXPECT_STREQ(reinterpret_cast<char*>(string), "ncalrpc:[TEST_RPC,Security=impersonation static true]");
    EXPECT_EQ(RpcStringFreeA(&string), RPC_S_OK);
    EXPECT_EQ(string, nullptr);
    EXPECT_EQ(RpcStringFreeA(&string), RPC_S_OK);
}

TEST(RpcBinding, StringIsCheckedPartByPart) {
    struct Row {
        const char* string;
        RPC_STATUS status;
    };
    for (const Row& row : {Row{"ncalrpc:[a]", RPC_S_OK},
                           {"ncalrpc:[endpoint=a]", RPC_S_OK},
                           {"ncalrpc:[A.b-c_9,Security=impersonation static true]", RPC_S_OK},
                           {"ncalrpc:[a,Security=identification static false]", RPC_S_OK},
                           {"", RPC_S_INVALID_STRING_BINDING},
                           {"ncalrpc", RPC_S_INVALID_STRING_BINDING},
                           {"ncalrpc:[a", RPC_S_INVALID_STRING_BINDING},
                           {"ncalrpc:[a]x", RPC_S_INVALID_STRING_BINDING},
                           {"12345678-1234-1234-1234-123456789abc@ncalrpc:[a]", RPC_S_INVALID_STRING_UUID},
                           {"ncacn_ip_tcp:[135]", RPC_S_PROTSEQ_NOT_SUPPORTED},
                           {"nonsense:[a]", RPC_S_INVALID_RPC_PROTSEQ},
                           {"ncalrpc:elsewhere[a]", RPC_S_INVALID_NET_ADDR},
                           {"ncalrpc:", RPC_S_INVALID_ENDPOINT_FORMAT},
                           {"ncalrpc:[]", RPC_S_INVALID_ENDPOINT_FORMAT},
                           {"ncalrpc:[.a]", RPC_S_INVALID_ENDPOINT_FORMAT},
                           {"ncalrpc:[../a]", RPC_S_INVALID_ENDPOINT_FORMAT},
                           {"ncalrpc:[a,Security=impersonation dynamic true]", RPC_S_INVALID_NETWORK_OPTIONS},
                           {"ncalrpc:[a,Security=anonymous static true]", RPC_S_INVALID_NETWORK_OPTIONS},
                           {"ncalrpc:[a,Security=impersonation static]", RPC_S_INVALID_NETWORK_OPTIONS},
                           {"ncalrpc:[a,Speed=high]", RPC_S_INVALID_NETWORK_OPTIONS}})
        EXPECT_EQ(Bind(row.string), row.status) << row.string;
    const std::string longName(65, 'a');
    EXPECT_EQ(Bind(("ncalrpc:[" + longName + "]").c_str()), RPC_S_INVALID_ENDPOINT_FORMAT);
    RPC_MESSAGE message{};
    EXPECT_EQ(I_RpcGetBuffer(&message), RPC_S_INVALID_BINDING);
}

TEST(RpcCall, EverySizeArrivesUnchangedBothWays) {
    TestServer server;
    const TestBinding binding;
    // Around the first buffer, around a fragment, and multi-fragment.
    for (const size_t size : {0, 1, 2, 7, 8, 60, 4071, 4072, 4073, 8192, 65503, 65504, 65505, 131008, 131009, 300000,
                              1 << 20, 2 << 20, 4 << 20}) {
        const Body body = Pattern(size);
        EXPECT_TRUE(binding.Call(kEcho, body).body == body) << size;
        EXPECT_TRUE(binding.Call(kMake, Number(static_cast<uint32_t>(size))).body == body) << size;
        EXPECT_EQ(binding.Call(kTouch, body).status, RPC_S_OK);
    }
    EXPECT_EQ(binding.Call(kEcho, Body((4 << 20) + 1)).status, RPC_S_OUT_OF_MEMORY);
    EXPECT_EQ(binding.Call(kMake, Number((4 << 20) + 1)).status, RPC_S_SERVER_OUT_OF_MEMORY);
    EXPECT_EQ(binding.Call(kDescribe).Number(1), 0U); // aligned
}

TEST(RpcCall, FailureOfTheServerIsTheStatus) {
    TestServer server;
    const TestBinding binding;
    struct Row {
        unsigned procedure;
        Body request;
        RPC_STATUS status;
    };
    for (const Row& row : {Row{kRaise, Number(RPC_X_BAD_STUB_DATA), RPC_X_BAD_STUB_DATA},
                           {kRaise, Number(RPC_S_SERVER_TOO_BUSY), RPC_S_SERVER_TOO_BUSY},
                           {kRaise, Number(4711), 4711},
                           {kRaise, Number(0), RPC_S_CALL_FAILED},
                           {kRaise, {1, 2}, RPC_X_BAD_STUB_DATA},
                           {kThrow, Number(0), RPC_S_SERVER_OUT_OF_MEMORY},
                           {kThrow, Number(1), RPC_S_CALL_FAILED},
                           {kTooLong, {}, RPC_S_INTERNAL_ERROR},
                           {kNoBuffer, {1, 2, 3}, RPC_S_OK},
                           {kHole, {}, RPC_S_PROCNUM_OUT_OF_RANGE},
                           {kProcedureCount, {}, RPC_S_PROCNUM_OUT_OF_RANGE},
                           {0x7FFF, {}, RPC_S_PROCNUM_OUT_OF_RANGE}}) {
        const Reply reply = binding.Call(row.procedure, row.request);
        EXPECT_EQ(reply.status, row.status) << row.procedure;
        EXPECT_TRUE(reply.body.empty());
    }
    EXPECT_EQ(binding.Call(kTouch).Number(), 1U); // on the same connection, and as good as ever
}

TEST(RpcCall, InterfaceIsAskedForByItsVersion) {
    TestServer server;
    const TestBinding binding;
    RPC_CLIENT_INTERFACE other = g_testClient;
    other.InterfaceId = kUnknownInterface;
    EXPECT_EQ(binding.Call(kTouch, {}, other).status, RPC_S_UNKNOWN_IF);
    struct Row {
        unsigned short major, minor;
        RPC_STATUS status;
    };
    for (const Row& row : {Row{1, 2, RPC_S_OK}, {1, 0, RPC_S_OK}, {1, 3, RPC_S_UNKNOWN_IF}, {2, 0, RPC_S_UNKNOWN_IF}}) {
        other = g_testClient;
        other.InterfaceId.SyntaxVersion = {row.major, row.minor};
        EXPECT_EQ(binding.Call(kEcho, {}, other).status, row.status) << row.major << "." << row.minor;
    }
    other = g_testClient;
    other.TransferSyntax.SyntaxVersion.MajorVersion = 3;
    EXPECT_EQ(binding.Call(kEcho, {}, other).status, RPC_S_UNSUPPORTED_TRANS_SYN);
    EXPECT_EQ(binding.Call(kEcho).status, RPC_S_OK);
    EXPECT_EQ(binding.Call(kIdentify).Number(), GetCurrentProcessId());
    const Body identity = binding.Call(kIdentify).body;
    EXPECT_EQ(std::string(identity.begin() + 4, identity.begin() + 8), "uid:");
}

TEST(RpcCall, TwoMessagesOfAThreadDoNotShareABuffer) {
    TestServer server;
    const TestBinding binding;
    RPC_MESSAGE first{};
    first.Handle = binding.Handle();
    first.RpcInterfaceInformation = &g_testClient;
    first.BufferLength = 100;
    ASSERT_EQ(I_RpcGetBuffer(&first), RPC_S_OK);
    memset(first.Buffer, 1, 100);
    EXPECT_EQ(binding.Call(kEcho, Pattern(5000)).body, Pattern(5000));
    ASSERT_EQ(I_RpcSendReceive(&first), RPC_S_OK);
    EXPECT_EQ(first.BufferLength, 100U);
    EXPECT_EQ(binding.Call(kEcho, Pattern(100)).body, Pattern(100));
    EXPECT_EQ(static_cast<uint8_t*>(first.Buffer)[99], 1);
    EXPECT_EQ(I_RpcFreeBuffer(&first), RPC_S_OK);
    EXPECT_EQ(first.Buffer, nullptr);

    first.BufferLength = 8;
    ASSERT_EQ(I_RpcGetBuffer(&first), RPC_S_OK);
    first.BufferLength = 9; // more than it asked for
    EXPECT_EQ(I_RpcSendReceive(&first), RPC_S_INVALID_BOUND);
    first.BufferLength = 8;
    first.RpcFlags = 1;
    EXPECT_EQ(I_RpcGetBuffer(&first), RPC_S_CANNOT_SUPPORT);
}

TEST(RpcServer, ItsCallsRefuseWhatIsNotServed) {
    EXPECT_EQ(RpcServerListen(1, 1, TRUE), RPC_S_NO_PROTSEQS_REGISTERED);
    EXPECT_EQ(RpcMgmtStopServerListening(nullptr), RPC_S_NOT_LISTENING);
    EXPECT_EQ(RpcMgmtWaitServerListen(), RPC_S_NOT_LISTENING);
    EXPECT_EQ(RpcServerUseProtseqEpA(Text("ncacn_ip_tcp"), 1, Text("a"), nullptr), RPC_S_PROTSEQ_NOT_SUPPORTED);
    EXPECT_EQ(RpcServerUseProtseqEpA(Text("ncalrpc"), 1, Text("a/b"), nullptr), RPC_S_INVALID_ENDPOINT_FORMAT);
    int descriptor = 0;
    EXPECT_EQ(RpcServerUseProtseqEpA(Text("ncalrpc"), 1, Text("a"), &descriptor), RPC_S_CANNOT_SUPPORT);
    ULONG process = 0;
    EXPECT_EQ(I_RpcBindingInqLocalClientPID(nullptr, &process), RPC_S_NO_CALL_ACTIVE);
    ASSERT_EQ(ServeOn("own"), RPC_S_OK);
    EXPECT_EQ(RpcServerListen(1, 1, TRUE), RPC_S_ALREADY_LISTENING);
    EXPECT_EQ(RegisterTestInterface(), RPC_S_ALREADY_REGISTERED);
    TestBinding binding("own"); // a client and its server in one process
    EXPECT_EQ(I_RpcBindingInqLocalClientPID(binding.Handle(), &process), RPC_S_WRONG_KIND_OF_BINDING);
    EXPECT_EQ(binding.Call(kIdentify).Number(), GetCurrentProcessId());
    EXPECT_EQ(RpcMgmtStopServerListening(binding.Handle()), RPC_S_WRONG_KIND_OF_BINDING);
    EXPECT_EQ(RpcMgmtStopServerListening(nullptr), RPC_S_OK);
    EXPECT_EQ(RpcMgmtWaitServerListen(), RPC_S_OK);
    EXPECT_EQ(binding.Call(kEcho).status, RPC_S_SERVER_UNAVAILABLE);
}

TEST(RpcServer, InterfaceCanBeWithdrawnAndOfferedAgain) {
    TestServer server;
    const TestBinding binding;
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_OK);
    EXPECT_EQ(server.Order("withdraw"), "withdrawn 0");
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_UNKNOWN_IF);
    RPC_CLIENT_INTERFACE older = g_testClient; // a context that is asked for only now
    older.InterfaceId.SyntaxVersion.MinorVersion = 1;
    EXPECT_EQ(binding.Call(kTouch, {}, older).status, RPC_S_UNKNOWN_IF);
    EXPECT_EQ(server.Order("withdraw"), "withdrawn " + std::to_string(RPC_S_UNKNOWN_IF));
    EXPECT_EQ(server.Order("offer"), "offered 0");
    EXPECT_EQ(binding.Call(kTouch).Number(), 2U);
}

TEST(RpcServer, StopLetsCallsInProgressReturn) {
    TestServer server;
    const TestBinding binding;
    Reply held;
    std::thread holder([&] { held = binding.Call(kHold); });
    ASSERT_TRUE(WaitUntil([&] { return binding.Call(kHolding).Number() == 1; }));
    EXPECT_EQ(server.Order("stop"), "stopping 0");
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_SERVER_UNAVAILABLE);
    EXPECT_EQ(server.Order("listen"), "listening " + std::to_string(RPC_S_ALREADY_LISTENING));
    server.Process().Tell("release");
    EXPECT_EQ(server.Order("wait"), "stopped 0");
    holder.join();
    EXPECT_EQ(held.Number(), 1U);
    EXPECT_EQ(server.Order("listen"), "listening 0");
    EXPECT_EQ(binding.Call(kTouch).Number(), 1U);
}
