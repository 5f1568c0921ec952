// What only a POSIX system can do to the run-time: files in its way, fork, descriptors that run out.
#include "memory_kit.h"
#include "private_machine.h"
#include "rpc_kit.h"

#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

TEST(RpcEndpoint, SocketTakesThePlaceOfADeadOneOnly) {
    fs::create_directory(PrivateDirectory() + "/run/rpc");
    const std::string target = PrivateDirectory() + "/target";
    for (const Plant plant : kPlants) {
        ASSERT_TRUE(PlantInPlace(EndpointPath("planted"), plant, target));
        EXPECT_EQ(ServeOn("planted"), RPC_S_CANT_CREATE_ENDPOINT) << static_cast<int>(plant);
        EXPECT_TRUE(fs::exists(fs::symlink_status(EndpointPath("planted"))));
    }
    ASSERT_TRUE(PlantInPlace(EndpointPath(".lock.lock"), Plant::kLink, target));
    EXPECT_EQ(ServeOn("lock"), RPC_S_CANT_CREATE_ENDPOINT);
    EXPECT_FALSE(fs::exists(EndpointPath("lock")) || fs::exists(target));
    const UnixListener foreign("held"); // by a server that knows nothing of locks
    EXPECT_EQ(ServeOn("held"), RPC_S_DUPLICATE_ENDPOINT);
    EXPECT_TRUE(fs::is_socket(EndpointPath("held")));

    TestServer("dead").Kill();
    EXPECT_TRUE(fs::is_socket(EndpointPath("dead")));
    umask(0077);
    EXPECT_EQ(ServeOn("dead"), RPC_S_OK);
    EXPECT_EQ(umask(0022), 0077U);
    EXPECT_EQ(fs::status(EndpointPath("dead")).permissions(), fs::perms(0666));
    EXPECT_EQ(TestBinding("dead").Call(kTouch).status, RPC_S_OK);
    EXPECT_EQ(StopServing(), RPC_S_OK);
    EXPECT_FALSE(fs::exists(EndpointPath("dead")));
}

TEST(RpcFork, ChildIsAnotherClient) {
    TestServer server;
    const TestBinding binding;
    EXPECT_EQ(binding.Number(kMonitor, Number(1)), 0U);
    EXPECT_EQ(RunForked([&] { // connects by itself, and leaves an association of its own behind
                  return binding.Number(kMonitor, Number(2)) == 0 &&
                         binding.Number(kIdentify) == static_cast<uint32_t>(getpid());
              }),
              1);
    EXPECT_TRUE(WaitUntil([&] { return binding.Call(kRundowns).Number(2) == 1; }));
    EXPECT_EQ(binding.Call(kRundowns).Number(1), 0U);
    EXPECT_EQ(binding.Number(kMonitor, Number(1)), 1U);
}

TEST(RpcServer, OutOfDescriptorsRefusesAndRecovers) {
    TestServer server;
    const TestBinding binding, late;
    ASSERT_EQ(binding.Call(kTouch).status, RPC_S_OK);
    const rlimit limit{32, 1024};
    ASSERT_EQ(prlimit(static_cast<pid_t>(server.Id()), RLIMIT_NOFILE, &limit, nullptr), 0);
    std::vector<UnixStream> clients;
    unsigned refused = 0;
    while (clients.size() < 40) {
        clients.emplace_back("test");
        clients.back().Send(GoodBind());
        const Bytes answer = clients.back().ReceivePdu();
        refused += TypeOf(answer) == kBindNakPdu && Get16(answer, 16) == 2; // local limit exceeded
    }
    EXPECT_GT(refused, 5U);
    EXPECT_LT(refused, 40U);
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_OK);
    const auto status = [&] { return static_cast<RPC_STATUS>(OnAThread([&] { return late.Call(kTouch).status; })); };
    EXPECT_EQ(status(), RPC_S_SERVER_TOO_BUSY);
    clients.clear();
    EXPECT_TRUE(WaitUntil([&] { return status() == RPC_S_OK; }));
}
