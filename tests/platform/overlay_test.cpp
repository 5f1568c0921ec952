// The layer on overlayfs, which most containers have for their own file system. There a file lock does not last as long
// as a mapping, and sockets, pipes and locks belong to files of another file system.
#include "kit.h"
#include "private_machine.h"
#include "test_process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/resource.h>

namespace fs = std::filesystem;

namespace {

// An empty overlay in a mount namespace of this thread's and of the processes that it starts. Fails the test, with the
// system's reason, where it cannot be mounted.
class OverlayMount {
public:
    OverlayMount() : m_path(PrivateDirectory() + "/merged") {
        const std::string base = PrivateDirectory();
        for (const char* name : {"/lower", "/upper", "/work", "/merged"})
            fs::create_directory(base + name);
        const std::string options = "lowerdir=" + base + "/lower,upperdir=" + base + "/upper,workdir=" + base + "/work";
        m_mounted = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                    mount("overlay", m_path.c_str(), "overlay", 0, options.c_str()) == 0;
        EXPECT_TRUE(m_mounted) << "no overlay can be mounted here, so nothing is known of containers: "
                               << std::strerror(errno);
    }
    ~OverlayMount() {
        if (m_mounted) umount2(m_path.c_str(), MNT_DETACH);
    }
    bool IsMounted() const { return m_mounted; }
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
    bool m_mounted;
};

// What has to do with the run directory's files: objects, windows, sockets, locks.
constexpr const char* kOnDisk = "--gtest_filter=Names.*:Rights.*:Life.*:Mutex.*:Section.*:Messages.C*:SentMessages.A*:"
                                "Window.*:RpcEndpoint.*:RpcFork.*:ServiceControl.*:RegistryStore.*:SpoolerJobs.*";

// Says how many descriptors ten events cost, and what happens when there are no more.
CHILD_PROCESS(RunsOutOfDescriptors) {
    const rlimit limit{64, 64};
    std::vector<HANDLE> events{CreateEventA(nullptr, TRUE, FALSE, "0")};
    const unsigned before = OpenDescriptors();
    while (events.size() < 11)
        events.push_back(CreateEventA(nullptr, TRUE, FALSE, std::to_string(events.size()).c_str()));
    child.Say(std::to_string(OpenDescriptors() - before));
    if (OpenDescriptors() == before) return 0;
    setrlimit(RLIMIT_NOFILE, &limit);
    while (events.size() < 100 && events.back() != nullptr)
        events.push_back(CreateEventA(nullptr, TRUE, FALSE, std::to_string(events.size()).c_str()));
    if (events.back() != nullptr || GetLastError() != ERROR_TOO_MANY_OPEN_FILES) return 1;
    if (!CloseHandle(events[0]) || CreateEventA(nullptr, TRUE, FALSE, "again") == nullptr) return 2;
    CloseHandle(events[1]); // to look with
    return ObjectFiles().size() == events.size() - 2 ? 0 : 3;
}

} // namespace

TEST_AS_ROOT(Overlay, AnEventCostsADescriptorThereAndNoneInSharedMemory) {
    const OverlayMount overlay;
    if (!overlay.IsMounted()) return;
    for (const auto& [directory, cost] : {std::pair{PrivateDirectory() + "/run", "0"}, {overlay.Path(), "10"}}) {
        TestProcess process("RunsOutOfDescriptors", {}, {{"ORIEL_RUNTIME_DIR", directory}});
        EXPECT_EQ(process.Hear(), cost);
        EXPECT_EQ(process.Wait(), 0);
    }
}

// What these tests find in shared memory they find there too, each in a process of its own as always.
TEST_AS_ROOT(Overlay, IsAsGoodAsSharedMemory) {
    const OverlayMount overlay;
    if (!overlay.IsMounted()) return;
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
            RunProgram(OwnProgram(), {"--gtest_filter=" + test}, {{kMachinesVariable, overlay.Path()}});
        EXPECT_EQ(result.exitCode, 0) << test << ":\n" << result.output << result.errors;
        ++run;
    }
    EXPECT_GT(run, 40U);
}
