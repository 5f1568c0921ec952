// The layer on overlayfs, which most containers have for their own file system. There sockets, pipes and locks belong
// to files of another file system.
#include "kit.h"
#include "private_machine.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>

namespace {

// What has to do with the run directory's files: windows, sockets, locks, the object server's among them.
constexpr const char* kOnDisk =
    "--gtest_filter=Names.*:Life.*:ObjectServer.E*:ObjectServer.T*:Messages.C*:SentMessages.A*:"
    "Window.*:RpcEndpoint.*:RpcFork.*:ServiceControl.*:RegistryStore.*:SpoolerJobs.*";

} // namespace

// What these tests find in shared memory they find there too, each in a process of its own as always.
TEST_AS_ROOT(Overlay, IsAsGoodAsSharedMemory) {
    // An empty overlay in a mount namespace of this thread's and of the processes that it starts.
    const std::string base = PrivateDirectory(), merged = base + "/merged";
    for (const char* name : {"/lower", "/upper", "/work", "/merged"})
        std::filesystem::create_directory(base + name);
    const std::string options = "lowerdir=" + base + "/lower,upperdir=" + base + "/upper,workdir=" + base + "/work";
    ASSERT_TRUE(unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                mount("overlay", merged.c_str(), "overlay", 0, options.c_str()) == 0)
        << "no overlay can be mounted here, so nothing is known of containers: " << std::strerror(errno);
    std::istringstream lines(RunProgram(OwnProgram(), {"--gtest_list_tests", kOnDisk}).output);
    std::string suite;
    unsigned run = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line[0] != ' ') {
            suite = line;
            continue;
        }
        const std::string test = suite + line.substr(2);
        const ProgramResult result =
            RunProgram(OwnProgram(), {"--gtest_filter=" + test}, {{kMachinesVariable, merged}});
        EXPECT_EQ(result.exitCode, 0) << test << ":\n" << result.output << result.errors;
        ++run;
    }
    EXPECT_GT(run, 30U);
    umount2(merged.c_str(), MNT_DETACH);
}
