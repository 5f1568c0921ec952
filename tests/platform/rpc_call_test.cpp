// Calls as a stub makes them, to a server in another process; servers and clients that are killed, stopped and started
// anew, and threads that end.
#include "base/timings.h"
#include "rpc_kit.h"

#include <atomic>
#include <thread>
#include <tuple>

TEST(RpcCall, EverySizeArrivesUnchangedBothWaysAndFailureIsTheStatus) {
    TestServer server;
    const TestBinding binding;
    // Around the first buffer, around a fragment, and multi-fragment.
    for (const uint32_t size : {0, 1, 7, 8, 60, 4071, 4072, 4073, 65503, 65504, 65505, 131008, 131009, 8 << 20}) {
        EXPECT_TRUE(binding.Call(kEcho, Pattern(size)).body == Pattern(size)) << size;
        EXPECT_TRUE(binding.Call(kMake, Number(size)).body == Pattern(size)) << size;
    }
    const std::tuple<unsigned, Bytes, RPC_STATUS> rows[] = {
        {kEcho, Bytes((8 << 20) + 1), RPC_S_OUT_OF_MEMORY},
        {kMake, Number((8 << 20) + 1), RPC_S_SERVER_OUT_OF_MEMORY},
        {kRaise, Number(RPC_X_BAD_STUB_DATA), RPC_X_BAD_STUB_DATA},
        {kRaise, Number(4711), 4711},
        {kRaise, Number(0), RPC_S_CALL_FAILED},
        {kThrow, Number(0), RPC_S_SERVER_OUT_OF_MEMORY},
        {kThrow, Number(1), RPC_S_CALL_FAILED},
        {kProcedureCount, {}, RPC_S_PROCNUM_OUT_OF_RANGE},
    };
    for (const auto& [procedure, request, status] : rows) {
        const Reply reply = binding.Call(procedure, request);
        EXPECT_EQ(reply.status, status) << procedure;
        EXPECT_TRUE(reply.body.empty());
    }
    EXPECT_EQ(binding.Number(kTouch), 1U) << "on the same connection, and as good as ever";
}

TEST(RpcCall, InterfaceIsAskedForByItsVersionAndWhileItIsOffered) {
    TestServer server;
    const TestBinding binding;
    const auto call = [&](unsigned short major, unsigned short minor, unsigned short syntax) {
        RPC_CLIENT_INTERFACE asked = g_testClient;
        asked.InterfaceId.SyntaxVersion = {major, minor};
        asked.TransferSyntax.SyntaxVersion.MajorVersion = syntax;
        return binding.Call(kEcho, {}, asked).status;
    };
    EXPECT_EQ(call(1, 0, 2), RPC_S_OK);
    EXPECT_EQ(call(1, 3, 2), RPC_S_UNKNOWN_IF);
    EXPECT_EQ(call(2, 0, 2), RPC_S_UNKNOWN_IF);
    EXPECT_EQ(call(1, 2, 3), RPC_S_UNSUPPORTED_TRANS_SYN);
    EXPECT_EQ(server.Order("withdraw"), RPC_S_OK);
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_UNKNOWN_IF);
    EXPECT_EQ(call(1, 1, 2), RPC_S_UNKNOWN_IF) << "a context that is asked for only now";
}

TEST(RpcCall, MayHaveATimeLimit) {
    TestServer server;
    const TestBinding binding, other;
    EXPECT_EQ(RpcBindingSetOption(nullptr, RPC_C_OPT_CALL_TIMEOUT, 1), RPC_S_INVALID_BINDING);
    EXPECT_EQ(RpcBindingSetOption(binding.handle, 1, 1), RPC_S_CANNOT_SUPPORT);
    EXPECT_EQ(RpcBindingSetOption(binding.handle, RPC_C_OPT_CALL_TIMEOUT, 70), RPC_S_OK);
    const auto expectCancelled = [&](const Bytes& body) {
        const double before = NowMs();
        EXPECT_EQ(binding.Call(kHold, body).status, RPC_S_CALL_CANCELLED);
        EXPECT_GE(NowMs() - before, 69);
        EXPECT_LT(NowMs() - before, 5000);
    };
    expectCancelled({}); // connected anew, and then not
    EXPECT_EQ(binding.Call(kEcho, Pattern(8)).body, Pattern(8));
    expectCancelled({});
    server.Stop();
    expectCancelled({});                  // it does not even answer who connects
    expectCancelled(Bytes(3 << 20, 'x')); // nor take what is sent
    server.Continue();
    EXPECT_EQ(RpcBindingSetOption(binding.handle, RPC_C_OPT_CALL_TIMEOUT, 0), RPC_S_OK);
    EXPECT_EQ(binding.Call(kEcho, Pattern(3 << 20)).body, Pattern(3 << 20));
    EXPECT_EQ(other.Call(kEcho, Pattern(8)).body, Pattern(8));
}

// A call that is in progress when its server is stopped returns, and fails when it is killed.
TEST(RpcServer, ThatStopsLetsCallsInProgressReturnAndMayListenAgain) {
    TestServer server;
    const TestBinding binding;
    for (const bool killed : {false, true}) {
        Reply held;
        std::thread holder([&] { held = binding.Call(kHold); });
        ASSERT_TRUE(WaitUntil([&] { return binding.Number(kHolding) == 1; }));
        if (killed) {
            server.Kill();
        } else {
            EXPECT_EQ(server.Order("stop"), RPC_S_OK);
            EXPECT_EQ(binding.Call(kTouch).status, RPC_S_SERVER_UNAVAILABLE);
            EXPECT_EQ(server.Order("listen"), RPC_S_ALREADY_LISTENING);
            server.Order("release");
            EXPECT_EQ(server.Order("wait"), RPC_S_OK);
        }
        holder.join();
        EXPECT_EQ(held.status, killed ? RPC_S_CALL_FAILED : RPC_S_OK);
        EXPECT_EQ(binding.Call(kTouch).status, RPC_S_SERVER_UNAVAILABLE);
        if (killed) break;
        EXPECT_EQ(server.Order("listen"), RPC_S_OK);
        EXPECT_EQ(binding.Number(kTouch), 1U);
    }
}

// Asks for a rundown with its argument and then does as it is told.
CHILD_PROCESS(RpcClient) {
    TestBinding binding;
    binding.Call(kMonitor, Number(static_cast<uint32_t>(std::stoul(child.arguments[0]))));
    child.Say("ready");
    for (std::string order = child.Hear(); !order.empty(); order = child.Hear()) {
        if (order == "free") binding.Free();
        if (order == "thread") binding.NumberOnAThread(kTouch);
        if (order == "hold") binding.Call(kHold);
        child.Say("done");
    }
    return 0;
}

TEST(RpcAssociation, IsRunDownOnceWhenItsProcessIsKilledOrFreesIt) {
    TestServer server;
    const TestBinding observer;
    const auto reaches = [&](uint32_t context, uint32_t rundowns) {
        return WaitUntil([&] { return observer.Call(kRundowns).Number(context) == rundowns; });
    };
    uint32_t context = 0;
    for (const auto& [order, before, after] : {std::tuple{"thread", 0U, 1U}, {"free", 1U, 1U}}) {
        TestProcess client = Ready("RpcClient", {std::to_string(context)});
        client.Tell(order);
        EXPECT_EQ(client.Hear(), "done");
        EXPECT_TRUE(reaches(context, before)) << order;
        client.Kill();
        EXPECT_TRUE(reaches(context++, after)) << order;
    }
    TestProcess holds = Ready("RpcClient", {"4"}); // killed within a call: run down when the call has returned
    holds.Tell("hold");
    ASSERT_TRUE(WaitUntil([&] { return observer.Number(kHolding) == 1; }));
    holds.Kill();
    EXPECT_EQ(observer.Call(kRundowns).Number(4), 0U);
    observer.Call(kRelease);
    EXPECT_TRUE(reaches(4, 1) && reaches(0, 1) && reaches(1, 1) && reaches(2, 0));
}

TEST(RpcFault, CallAfterARestartIsMadeOnce) {
    TestServer server;
    const TestBinding binding;
    EXPECT_EQ(binding.Number(kTouch), 1U);
    EXPECT_EQ(binding.NumberOnAThread(kTouch), 2U); // its connection is idle now
    server.Kill();
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_SERVER_UNAVAILABLE);
    server.Restart();
    EXPECT_EQ(binding.Number(kTouch), 1U);
    EXPECT_EQ(binding.NumberOnAThread(kTouch), 2U);
    server.Kill();
    server.Restart(); // without a call in between
    EXPECT_EQ(binding.Number(kTouch, Pattern(1 << 20)), 1U);
    EXPECT_EQ(binding.Number(kMonitor, Number(6)), 0U);
    EXPECT_EQ(binding.NumberOnAThread(kMonitor, Number(6)), 6U); // in the new association
}

TEST(RpcFault, StoppedServerIsGivenUpByNewClientsOnly) {
    oriel::g_timings.rpcConnect = 200;
    TestServer server;
    const TestBinding binding;
    ASSERT_EQ(binding.Call(kTouch).status, RPC_S_OK);
    server.Stop();
    // More at once than the backlog holds: each returns after the time a connect has, not after a multiple of it.
    std::vector<std::thread> clients;
    std::atomic<unsigned> unavailable{0};
    const double begin = NowMs();
    for (int i = 0; i < 17; ++i)
        clients.emplace_back([&] { unavailable += binding.Call(kTouch).status == RPC_S_SERVER_UNAVAILABLE; });
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(unavailable, 17U);
    EXPECT_GT(NowMs() - begin, 190);
    EXPECT_LT(NowMs() - begin, 200 + 2000); // of a loaded machine

    // A call that has been sent waits for as long as it takes.
    std::atomic<bool> goesOn{false};
    std::thread resumes([&] {
        PauseMs(300); // longer than a connect has
        goesOn = true;
        server.Continue();
    });
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_OK);
    EXPECT_TRUE(goesOn);
    resumes.join();
}

TEST(RpcFault, EndpointHasOneServer) {
    TestServer server;
    EXPECT_EQ(TestProcess("RpcServer", {"test"}).Hear(), std::to_string(RPC_S_DUPLICATE_ENDPOINT));
    EXPECT_EQ(ServeOn("test"), RPC_S_DUPLICATE_ENDPOINT);
    const TestBinding binding;
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_OK);
    EXPECT_EQ(server.Order("stop") + server.Order("wait"), RPC_S_OK);
    EXPECT_EQ(ServeOn("test"), RPC_S_DUPLICATE_ENDPOINT); // claimed until its process ends
    server.Kill();
    EXPECT_EQ(ServeOn("test"), RPC_S_OK); // a client and its server in one process
    const Bytes identity = binding.Call(kIdentify).body;
    EXPECT_EQ(Get32(identity, 0), GetCurrentProcessId());
    EXPECT_EQ(std::string(identity.begin() + 4, identity.begin() + 8), "uid:");
    EXPECT_EQ(StopServing(), RPC_S_OK);
}
