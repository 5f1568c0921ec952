// The desktop agent: who starts it, what it holds on to, and what ends it.
#include "private_machine.h"
#include "product.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const Environment kDesktop = {{"ORIEL_WINDOW_STATION", "WinSta0"}};

HWND AgentWindow() {
    return FindWindowA("TVORPSPWndClass", nullptr);
}

int AgentProcess() {
    DWORD process = 0;
    GetWindowThreadProcessId(AgentWindow(), &process);
    return static_cast<int>(process);
}

std::vector<int> Agents() {
    return ProcessesOf("TVORPZ.EXE");
}

BOOL CALLBACK CountAgentWindow(HWND window, LPARAM count) {
    char name[64] = "";
    GetClassNameA(window, name, sizeof name);
    if (std::strcmp(name, "TVORPSPWndClass") == 0) ++*reinterpret_cast<int*>(count);
    return TRUE;
}

int AgentWindows() {
    int count = 0;
    EnumWindows(CountAgentWindow, reinterpret_cast<LPARAM>(&count));
    return count;
}

// As the library does. The process that is started ends at once; the agent is a child of nobody here.
void StartAgents(int count) {
    std::vector<HANDLE> started;
    for (int i = 0; i < count; ++i) {
        STARTUPINFOA startup = {};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION process = {};
        std::string line = "\"" + WindowsPath(ProgramPath("TVORPZ.EXE")) + "\" /S";
        ASSERT_TRUE(CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NEW_CONSOLE, nullptr, nullptr,
                                   &startup, &process));
        CloseHandle(process.hThread);
        started.push_back(process.hProcess);
    }
    for (const HANDLE process : started) {
        EXPECT_EQ(WaitForSingleObject(process, 20000), DWORD{WAIT_OBJECT_0});
        DWORD code = 99;
        EXPECT_TRUE(GetExitCodeProcess(process, &code));
        EXPECT_EQ(code, 0u);
        CloseHandle(process);
    }
}

std::string LinkOf(int process, const std::string& name) {
    return std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/" + name);
}

} // namespace

TEST(DesktopAgent, IsStartedOnceWhereThereIsADesktopAndHoldsNothingOfItsCreator) {
    AddExamplePrinter();
    RunningProduct product;
    const auto open = [](const char* kind, const Environment& environment) {
        EXPECT_EQ(OrielText({"get", "Front desk", "PageCount", "--kind", kind}, environment), "unknown");
        return AgentProcess();
    };
    EXPECT_EQ(open("0", {}), 0);
    const int agent = open("11", kDesktop); // an open of that kind waits until the agent says that it is there
    ASSERT_NE(agent, 0);
    for (const char* kind : {"0", "7", "8", "11"})
        EXPECT_EQ(open(kind, kDesktop), agent);
    EXPECT_EQ(AgentWindows(), 1);

    EXPECT_EQ(LinkOf(agent, "cwd"), "/");
    for (const char* stream : {"fd/0", "fd/1", "fd/2"})
        EXPECT_EQ(LinkOf(agent, stream), "/dev/null");
    EXPECT_EQ(getsid(agent), getpgid(agent));
    EXPECT_NE(getsid(agent), getsid(0));
}

TEST(DesktopAgent, SaysThatItIsReadyAndIsAloneHoweverManyBegin) {
    AddExamplePrinter();
    RunningProduct product;
    OrielText({"get", "Front desk", "PageCount"}); // the first printer of the list
    UseSetting("ORIEL_WINDOW_STATION", "WinSta0");
    const HANDLE ready = CreateEventA(nullptr, TRUE, FALSE, "TVOR:TVORSQD_DB1:Nsr:Initialize");
    {
        // All of them are about to begin.
        const HANDLE turn = CreateMutexA(nullptr, TRUE, "TVORSQD:DesktopAgent");
        StartAgents(5);
        EXPECT_TRUE(WaitUntil([] { return Agents().size() == 5; }));
        EXPECT_EQ(AgentWindows(), 0);
        ReleaseMutex(turn);
        CloseHandle(turn);
    }
    ASSERT_TRUE(WaitUntil([] { return AgentWindows() == 1 && Agents().size() == 1; }, 20000));
    EXPECT_EQ(WaitForSingleObject(ready, 20000), DWORD{WAIT_OBJECT_0});
    const int agent = AgentProcess();
    EXPECT_EQ(Agents(), std::vector{agent});

    // One that finds the other says so too: whoever started it saw no window yet.
    ResetEvent(ready);
    StartAgents(1);
    EXPECT_EQ(WaitForSingleObject(ready, 20000), DWORD{WAIT_OBJECT_0});
    EXPECT_TRUE(WaitUntil([&] { return Agents() == std::vector{agent}; }, 20000));

    EXPECT_EQ(RunProgram(ProgramPath("TVORPZ.EXE")).exitCode, 2);
    EXPECT_EQ(RunProgram(ProgramPath("TVORPZ.EXE"), {"/X"}).exitCode, 2);
}

TEST(DesktopAgent, EndsWhenItIsAskedToAndWithDesktopAndProduct) {
    AddExamplePrinter();
    RunningProduct product;
    sockaddr_un address{.sun_family = AF_UNIX};
    const std::string display = PrivateDirectory() + "/wayland";
    std::memcpy(address.sun_path, display.data(), display.size());
    const int compositor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ASSERT_EQ(bind(compositor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(compositor, 16), 0);
    UseSetting("WAYLAND_DISPLAY", display.c_str());
    const auto isLookedAt = [compositor] {
        const int connection = accept(compositor, nullptr, nullptr);
        if (connection >= 0) close(connection);
        return connection >= 0;
    };

    const struct {
        const char* what;
        std::function<void()> act;
    } ends[] = {
        {"message", [] { PostMessageA(AgentWindow(), 1030, 0, 0); }},
        {"close", [] { PostMessageA(AgentWindow(), WM_CLOSE, 0, 0); }},
        {"termination",
         [] {
             HANDLE event = nullptr;
             EXPECT_TRUE(WaitUntil([&] {
                 event = OpenEventA(EVENT_MODIFY_STATE, FALSE, "Global\\TVORSQD:TerminateManager");
                 return event != nullptr;
             }));
             SetEvent(event);
             CloseHandle(event);
         }},
        // While it waits for its next look.
        {"product",
         [&] {
             EXPECT_TRUE(WaitUntil(isLookedAt));
             product.Interrupt();
             EXPECT_EQ(product.Wait(), 0);
         }},
        // With no product that is up, which some client kinds don't need.
        {"desktop",
         [&] {
             EXPECT_TRUE(WaitUntil(isLookedAt));
             close(compositor);
         }},
    };
    for (const auto& end : ends) {
        while (isLookedAt()) { // by the one before
        }
        StartAgents(1);
        ASSERT_TRUE(WaitUntil([] { return AgentWindow() != nullptr; }, 20000)) << end.what;
        end.act();
        EXPECT_TRUE(WaitUntil([] { return AgentWindow() == nullptr && Agents().empty(); }, 20000)) << end.what;
    }
    // A desktop that is gone has none.
    StartAgents(1);
    EXPECT_TRUE(WaitUntil([] { return Agents().empty(); }, 20000));
}
