// Calls as a stub makes them, to a server in another process.
#include "rpc_kit.h"

#include <thread>

namespace {

RPC_CSTR Text(const char* text) {
    return reinterpret_cast<RPC_CSTR>(const_cast<char*>(text));
}

} // namespace

TEST(RpcBinding, StringIsMadeOfItsPartsAndChecked) {
    RPC_CSTR string = nullptr;
    ASSERT_EQ(RpcStringBindingComposeA(nullptr, Text("ncalrpc"), nullptr, Text("TEST_RPC"),
                                       Text("Security=impersonation static true"), &string),
              RPC_S_OK);
    EXPECT_STREQ(reinterpret_cast<char*>(string), "ncalrpc:[TEST_RPC,Security=impersonation static true]");
    EXPECT_EQ(RpcStringFreeA(&string), RPC_S_OK);
    EXPECT_EQ(string, nullptr);
    for (const auto& [text, status] :
         {std::pair{"ncalrpc:[A.b-c_9]", RPC_S_OK},
          {"ncalrpc:[a", RPC_S_INVALID_STRING_BINDING},
          {"ncacn_ip_tcp:[135]", RPC_S_PROTSEQ_NOT_SUPPORTED},
          {"ncalrpc:elsewhere[a]", RPC_S_INVALID_NET_ADDR},
          {"ncalrpc:[../a]", RPC_S_INVALID_ENDPOINT_FORMAT},
          {"ncalrpc:[a,Security=impersonation dynamic true]", RPC_S_INVALID_NETWORK_OPTIONS},
          {"ncalrpc:[a,Speed=high]", RPC_S_INVALID_NETWORK_OPTIONS}}) {
        RPC_BINDING_HANDLE handle = nullptr;
        EXPECT_EQ(RpcBindingFromStringBindingA(Text(text), &handle), status) << text;
        EXPECT_EQ(RpcBindingFree(&handle), status == RPC_S_OK ? RPC_S_OK : RPC_S_INVALID_BINDING) << text;
    }
}

TEST(RpcCall, EverySizeArrivesUnchangedBothWays) {
    TestServer server;
    const TestBinding binding;
    // Around the first buffer, around a fragment, and multi-fragment.
    for (const size_t size : {0, 1, 7, 8, 60, 4071, 4072, 4073, 8192, 65503, 65504, 65505, 131008, 131009, 4 << 20}) {
        const Bytes body = Pattern(size);
        EXPECT_TRUE(binding.Call(kEcho, body).body == body) << size;
        EXPECT_TRUE(binding.Call(kMake, Number(static_cast<uint32_t>(size))).body == body) << size;
        EXPECT_EQ(binding.Call(kTouch, body).status, RPC_S_OK);
    }
    EXPECT_EQ(binding.Call(kEcho, Bytes((4 << 20) + 1)).status, RPC_S_OUT_OF_MEMORY);
    EXPECT_EQ(binding.Call(kMake, Number((4 << 20) + 1)).status, RPC_S_SERVER_OUT_OF_MEMORY);
}

TEST(RpcCall, FailureOfTheServerIsTheStatus) {
    TestServer server;
    const TestBinding binding;
    const struct {
        unsigned procedure;
        Bytes request;
        RPC_STATUS status;
    } rows[] = {
        {kRaise, Number(RPC_X_BAD_STUB_DATA), RPC_X_BAD_STUB_DATA},
        {kRaise, Number(RPC_S_SERVER_TOO_BUSY), RPC_S_SERVER_TOO_BUSY},
        {kRaise, Number(4711), 4711},
        {kRaise, Number(0), RPC_S_CALL_FAILED},
        {kRaise, Number(0xFFFFFFFE), RPC_S_CALL_FAILED},
        {kThrow, Number(0), RPC_S_SERVER_OUT_OF_MEMORY},
        {kThrow, Number(1), RPC_S_CALL_FAILED},
        {kTooLong, {}, RPC_S_INTERNAL_ERROR},
        {kNoBuffer, {1, 2, 3}, RPC_S_OK},
        {kHole, {}, RPC_S_PROCNUM_OUT_OF_RANGE},
        {kProcedureCount, {}, RPC_S_PROCNUM_OUT_OF_RANGE},
        {0x7FFF, {}, RPC_S_PROCNUM_OUT_OF_RANGE},
    };
    for (const auto& row : rows) {
        const Reply reply = binding.Call(row.procedure, row.request);
        EXPECT_EQ(reply.status, row.status) << row.procedure;
        EXPECT_TRUE(reply.body.empty());
    }
    EXPECT_EQ(binding.Call(kTouch).Number(), 1U) << "on the same connection, and as good as ever";
}

TEST(RpcCall, InterfaceIsAskedForByItsVersionAndWhileItIsOffered) {
    TestServer server;
    const TestBinding binding;
    const struct {
        RPC_SYNTAX_IDENTIFIER id;
        unsigned short major, minor, syntax;
        RPC_STATUS status;
    } rows[] = {
        {kTestInterface, 1, 2, 2, RPC_S_OK},
        {kTestInterface, 1, 0, 2, RPC_S_OK},
        {kTestInterface, 1, 3, 2, RPC_S_UNKNOWN_IF},
        {kTestInterface, 2, 0, 2, RPC_S_UNKNOWN_IF},
        {kTestInterface, 1, 2, 3, RPC_S_UNSUPPORTED_TRANS_SYN},
        {kUnknownInterface, 1, 0, 2, RPC_S_UNKNOWN_IF},
    };
    for (const auto& row : rows) {
        RPC_CLIENT_INTERFACE asked = g_testClient;
        asked.InterfaceId = {row.id.SyntaxGUID, {row.major, row.minor}};
        asked.TransferSyntax.SyntaxVersion.MajorVersion = row.syntax;
        EXPECT_EQ(binding.Call(kEcho, {}, asked).status, row.status) << row.major << "." << row.minor;
    }
    const Bytes identity = binding.Call(kIdentify).body;
    EXPECT_EQ(binding.Call(kIdentify).Number(), GetCurrentProcessId());
    EXPECT_EQ(std::string(identity.begin() + 4, identity.begin() + 8), "uid:");

    EXPECT_EQ(server.Order("withdraw"), RPC_S_OK);
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_UNKNOWN_IF);
    RPC_CLIENT_INTERFACE older = g_testClient; // a context that is asked for only now
    older.InterfaceId.SyntaxVersion.MinorVersion = 1;
    EXPECT_EQ(binding.Call(kTouch, {}, older).status, RPC_S_UNKNOWN_IF);
    EXPECT_EQ(server.Order("withdraw"), RPC_S_UNKNOWN_IF);
    EXPECT_EQ(server.Order("offer"), RPC_S_OK);
    EXPECT_EQ(binding.Call(kTouch).Number(), 1U);
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
}

TEST(RpcCall, MayHaveATimeLimit) {
    TestServer server;
    const TestBinding binding;
    const TestBinding other;
    EXPECT_EQ(RpcBindingSetOption(nullptr, RPC_C_OPT_CALL_TIMEOUT, 1), RPC_S_INVALID_BINDING);
    EXPECT_EQ(RpcBindingSetOption(binding.Handle(), 1, 1), RPC_S_CANNOT_SUPPORT);
    EXPECT_EQ(RpcBindingSetOption(binding.Handle(), RPC_C_OPT_CALL_TIMEOUT, 100), RPC_S_OK);
    const auto expectCancelled = [&](const Bytes& body) {
        const double before = NowMs();
        EXPECT_EQ(binding.Call(kHold, body).status, RPC_S_CALL_CANCELLED);
        EXPECT_GE(NowMs() - before, 99);
        EXPECT_LT(NowMs() - before, 5000);
    };
    expectCancelled({}); // connected anew, and then not
    EXPECT_EQ(binding.Call(kEcho, Pattern(8)).body, Pattern(8));
    expectCancelled({});
    server.Process().Stop();
    expectCancelled({});                  // it does not even answer who connects
    expectCancelled(Bytes(3 << 20, 'x')); // nor take what is sent
    server.Process().Continue();
    EXPECT_EQ(RpcBindingSetOption(binding.Handle(), RPC_C_OPT_CALL_TIMEOUT, 0), RPC_S_OK);
    EXPECT_EQ(binding.Call(kEcho, Pattern(3 << 20)).body, Pattern(3 << 20));
    EXPECT_EQ(other.Call(kEcho, Pattern(8)).body, Pattern(8));
    EXPECT_EQ(server.Order("release"), RPC_S_OK);
}

TEST(RpcServer, StopLetsCallsInProgressReturn) {
    TestServer server;
    const TestBinding binding;
    Reply held;
    std::thread holder([&] { held = binding.Call(kHold); });
    ASSERT_TRUE(WaitUntil([&] { return binding.Call(kHolding).Number() == 1; }));
    EXPECT_EQ(server.Order("stop"), RPC_S_OK);
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_SERVER_UNAVAILABLE);
    EXPECT_EQ(server.Order("listen"), RPC_S_ALREADY_LISTENING);
    server.Order("release");
    EXPECT_EQ(server.Order("wait"), RPC_S_OK);
    holder.join();
    EXPECT_EQ(held.Number(), 1U);
    EXPECT_EQ(server.Order("listen"), RPC_S_OK);
    EXPECT_EQ(binding.Call(kTouch).Number(), 1U);
}
