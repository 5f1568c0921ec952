// The desktop agent: who starts it, what it holds on to, and what ends it.
#include "product.h"
#include "unix_stream.h"

#include <windows.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <unistd.h>

namespace {

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

// As the library does. The process that is started ends at once; the agent is a child of nobody here.
void StartAgents(int count) {
    std::vector<TestProcess> started;
    for (int i = 0; i < count; ++i)
        started.push_back(TestProcess::Program(ProgramPath("TVORPZ.EXE"), {"/S"}));
    for (TestProcess& process : started)
        EXPECT_EQ(process.Wait(20000), 0);
}

} // namespace

TEST(DesktopAgent, IsAloneHoweverManyBeginAndHoldsNothingOfItsCreator) {
    const ExampleProduct product;
    const auto open = [] { EXPECT_EQ(OrielText({"get", kPrinter, "PageCount", "--kind", "11"}), "unknown"); };
    open();
    EXPECT_EQ(AgentWindow(), nullptr) << "there is no desktop";
    UseSetting("ORIEL_WINDOW_STATION", "WinSta0");
    const HANDLE ready = CreateEventA(nullptr, TRUE, FALSE, "TVOR:TVORSQD_DB1:Nsr:Initialize");
    {
        // All of them are about to begin.
        const HANDLE turn = CreateMutexA(nullptr, TRUE, "TVORSQD:DesktopAgent");
        StartAgents(5);
        EXPECT_TRUE(WaitUntil([] { return Agents().size() == 5; }));
        EXPECT_EQ(AgentWindow(), nullptr);
        ReleaseMutex(turn);
        CloseHandle(turn);
    }
    ASSERT_TRUE(WaitUntil([] { return AgentWindow() != nullptr && Agents().size() == 1; }, 20000));
    EXPECT_EQ(WaitForSingleObject(ready, 20000), DWORD{WAIT_OBJECT_0});
    const int agent = AgentProcess();

    // One that finds the other says so too: whoever started it saw no window yet.
    ResetEvent(ready);
    StartAgents(1);
    EXPECT_EQ(WaitForSingleObject(ready, 20000), DWORD{WAIT_OBJECT_0});
    EXPECT_TRUE(WaitUntil([&] { return Agents() == std::vector{agent}; }, 20000));
    PostMessageA(AgentWindow(), 1030, 0, 0);
    EXPECT_TRUE(WaitUntil([] { return Agents().empty(); }, 20000));
    ResetEvent(ready);
    open(); // which waits until the agent says that it is there
    const std::filesystem::path folder = "/proc/" + std::to_string(AgentProcess());
    EXPECT_EQ(std::filesystem::read_symlink(folder / "cwd"), "/");
    for (const char* stream : {"fd/0", "fd/1", "fd/2"})
        EXPECT_EQ(std::filesystem::read_symlink(folder / stream), "/dev/null");
    EXPECT_NE(getsid(AgentProcess()), getsid(0));
}

TEST(DesktopAgent, EndsWhenItIsAskedToAndWithDesktopAndProduct) {
    ExampleProduct product;
    UseSetting("WAYLAND_DISPLAY", EndpointPath("wayland").c_str());
    std::optional<UnixListener> compositor;
    const auto endProduct = [&] {
        product.Process().Interrupt();
        EXPECT_EQ(product.Process().Wait(), 0);
    };
    const struct {
        const char* what;
        std::function<void()> act;
    } ends[] = {
        {"close", [] { PostMessageA(AgentWindow(), WM_CLOSE, 0, 0); }},
        {"termination",
         [] {
             OrielText({"terminate", kPrinter});
         }},
        {"product", endProduct},
        // With no product that is up, which some client kinds don't need.
        {"desktop", [&] { compositor.reset(); }},
    };
    for (const auto& end : ends) {
        compositor.emplace("wayland");
        StartAgents(1);
        ASSERT_TRUE(WaitUntil([] { return AgentWindow() != nullptr; }, 20000)) << end.what;
        compositor->Accept(); // the agent has looked, and waits for its next look
        end.act();
        EXPECT_TRUE(WaitUntil([] { return AgentWindow() == nullptr && Agents().empty(); }, 20000)) << end.what;
    }
    // A desktop that is gone has none.
    StartAgents(1);
    EXPECT_TRUE(WaitUntil([] { return Agents().empty(); }, 20000));
}
