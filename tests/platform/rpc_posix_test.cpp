// What only a POSIX system can do to the run-time: files in its way, fork, descriptors that run out.
#include "memory_kit.h"
#include "private_machine.h"
#include "rpc_kit.h"

#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

TEST(RpcEndpoint, SocketTakesThePlaceOfADeadOneOnly) {
    fs::create_directory(PrivateDirectory() + "/run/rpc");
    const std::string target = PrivateDirectory() + "/target";
    fs::create_symlink(PrivateDirectory(), EndpointPath("link"));
    fs::create_symlink(target, EndpointPath("dangling"));
    fs::create_directory(EndpointPath("directory"));
    ASSERT_EQ(mkfifo(EndpointPath("fifo").c_str(), 0666), 0);
    ASSERT_GE(mknod(EndpointPath("file").c_str(), S_IFREG | 0666, 0), 0);
    fs::create_symlink(target, EndpointPath(".lock.lock"));
    for (const char* name : {"link", "dangling", "directory", "fifo", "file", "lock"}) {
        EXPECT_EQ(ServeOn(name), RPC_S_CANT_CREATE_ENDPOINT) << name;
        EXPECT_NE(fs::exists(fs::symlink_status(EndpointPath(name))), std::string(name) == "lock");
    }
    const UnixListener foreign("held"); // by a server that knows nothing of locks
    EXPECT_EQ(ServeOn("held"), RPC_S_DUPLICATE_ENDPOINT);
    EXPECT_TRUE(fs::is_socket(EndpointPath("held")));
    EXPECT_FALSE(fs::exists(target));

    TestServer("dead").Kill();
    EXPECT_TRUE(fs::is_socket(EndpointPath("dead")));
    umask(0077);
    EXPECT_EQ(ServeOn("dead"), RPC_S_OK);
    EXPECT_EQ(umask(0022), 0077U);
    EXPECT_EQ(fs::status(EndpointPath("dead")).permissions(), fs::perms(0666));
    const TestBinding binding("dead");
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_OK);
    EXPECT_EQ(StopServing(), RPC_S_OK);
    EXPECT_FALSE(fs::exists(EndpointPath("dead")));
}

TEST(RpcEndpoint, LongRunDirectoryIsServedToo) {
    const std::string directory = PrivateDirectory() + "/" + std::string(100, 'd');
    fs::create_directory(directory);
    TestProcess server("RpcServer", {"test"}, {{"ORIEL_RUNTIME_DIR", directory}});
    ASSERT_EQ(server.Hear(), "0");
    TestProcess client("RpcClient", {"1"}, {{"ORIEL_RUNTIME_DIR", directory}});
    ASSERT_EQ(client.Hear(), "monitored");
    client.Tell("thread");
    EXPECT_EQ(client.Hear(), "0");
}

TEST(RpcFork, ChildIsAnotherClient) {
    TestServer server;
    const TestBinding binding;
    EXPECT_EQ(binding.Call(kMonitor, Number(1)).Number(), 0U);
    EXPECT_EQ(RunForked([&] {
                  // Connects by itself, and leaves an association of its own behind.
                  return binding.Call(kMonitor, Number(2)).Number() == 0 &&
                         binding.Call(kIdentify).Number() == static_cast<uint32_t>(getpid());
              }),
              1);
    EXPECT_TRUE(WaitUntil([&] { return binding.Call(kRundowns).Number(2) == 1; }));
    EXPECT_EQ(binding.Call(kRundowns).Number(1), 0U);
    EXPECT_EQ(binding.Call(kMonitor, Number(1)).Number(), 1U);
}

TEST(RpcFork, ChildOfAServerServesNobody) {
#if defined(__SANITIZE_THREAD__)
    constexpr bool kMayStartThreads = false; // the thread sanitizer ends a child that does
#else
    constexpr bool kMayStartThreads = true;
#endif
    ASSERT_EQ(ServeOn("forks"), RPC_S_OK);
    const TestBinding binding("forks");
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_OK);
    int held[2];
    ASSERT_EQ(pipe(held), 0);
    const pid_t child = fork();
    if (child == 0) {
        char byte = 0;
        close(held[1]);
        const bool idle =
            RpcMgmtWaitServerListen() == RPC_S_NOT_LISTENING && (!kMayStartThreads || ServeOn("another") == RPC_S_OK);
        _exit(read(held[0], &byte, 1) == 0 && idle ? 0 : 1);
    }
    close(held[0]);
    // The child lives on, and holds neither the clients nor the endpoint.
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_OK);
    EXPECT_EQ(StopServing(), RPC_S_OK);
    EXPECT_EQ(binding.Call(kTouch).status, RPC_S_SERVER_UNAVAILABLE);
    close(held[1]);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(RpcServer, OutOfDescriptorsRefusesAndRecovers) {
    TestServer server;
    const TestBinding binding;
    ASSERT_EQ(binding.Call(kTouch).status, RPC_S_OK);
    rlimit limit{};
    const auto process = static_cast<pid_t>(server.Process().Id());
    ASSERT_EQ(prlimit(process, RLIMIT_NOFILE, nullptr, &limit), 0);
    limit.rlim_cur = 32;
    ASSERT_EQ(prlimit(process, RLIMIT_NOFILE, &limit, nullptr), 0);
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
    const TestBinding late;
    RPC_STATUS status = RPC_S_OK;
    const auto call = [&] { std::thread([&] { status = late.Call(kTouch).status; }).join(); };
    call();
    EXPECT_EQ(status, RPC_S_SERVER_TOO_BUSY);
    clients.clear();
    EXPECT_TRUE(WaitUntil([&] { return call(), status == RPC_S_OK; }));
}
