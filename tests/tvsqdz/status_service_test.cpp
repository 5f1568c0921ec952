// Finding and restarting the status database service, and the client's way with answers of every kind.
#include "base/timings.h"
#include "machine.h"
#include "machine/status_service.h"
#include "private_machine.h"
#include "product/client.h"
#include "product/ndr.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

// The NT service as a process that takes the states its test tells it: "state checkpoint hint".
Child* g_child;
SERVICE_STATUS_HANDLE g_service;

VOID WINAPI IgnoreControl(DWORD) {}

VOID WINAPI TellStates(DWORD, LPSTR*) {
    g_service = RegisterServiceCtrlHandlerA("TVORSDB", IgnoreControl);
    for (std::string line = g_child->Hear(); !line.empty(); line = g_child->Hear()) {
        SERVICE_STATUS status = {};
        status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        std::istringstream(line) >> status.dwCurrentState >> status.dwCheckPoint >> status.dwWaitHint;
        g_child->Say(SetServiceStatus(g_service, &status) ? "told" : "refused");
    }
}

CHILD_PROCESS(IsTheService) {
    g_child = &child;
    char name[] = "TVORSDB";
    const SERVICE_TABLE_ENTRYA table[] = {{name, TellStates}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherA(table) ? 0 : 1;
}

// A window of the Windows 95/98/Me service, in a process of its own; closes when it is asked unless it is stubborn.
bool g_stubborn;

LRESULT CALLBACK ServiceWindow(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_CLOSE && g_stubborn) return 0;
    if (message == WM_DESTROY) PostQuitMessage(0);
    return DefWindowProcA(window, message, wParam, lParam);
}

CHILD_PROCESS(ShowsTheServiceWindow) {
    g_stubborn = !child.arguments.empty();
    WNDCLASSEXA windowClass = {};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = ServiceWindow;
    windowClass.lpszClassName = "TVORSDB95WndClass";
    RegisterClassExA(&windowClass);
    CreateWindowExA(0, "TVORSDB95WndClass", "TVORSDB95", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    child.Say("shown");
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0)
        DispatchMessageA(&message);
    child.Say("closed");
    return 0;
}

std::string Tell(TestProcess& process, const std::string& line) {
    process.Tell(line);
    return process.Hear();
}

// A start command that leaves a line for each start.
std::string StartsFile() {
    return PrivateDirectory() + "/starts";
}

void SetStartCommand() {
    const std::string program = PrivateDirectory() + "/service9x";
    std::ofstream(program) << "#!/bin/sh\necho started >> " << StartsFile() << "\n";
    std::filesystem::permissions(program, std::filesystem::perms(0755));
    SetRegistryText("SOFTWARE\\Tavik\\Oriel\\RunServices", "TVORSDB", WindowsPath(program));
}

size_t Starts() {
    std::ifstream file(StartsFile());
    size_t count = 0;
    for (std::string line; std::getline(file, line);)
        ++count;
    return count;
}

// A server of the interface that answers every call with the bytes it was told ("reply <hex>"), and says how many calls
// there were ("calls").
Bytes g_reply;
std::atomic<int> g_calls;

void AnswerAsTold(PRPC_MESSAGE message) {
    ++g_calls;
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
    char protocol[] = "ncalrpc";
    char endpoint[] = "TVORSDB_RPC";
    const bool listens = RpcServerUseProtseqEpA(reinterpret_cast<RPC_CSTR>(protocol), 10,
                                                reinterpret_cast<RPC_CSTR>(endpoint), nullptr) == RPC_S_OK &&
                         RpcServerRegisterIf2(&offered, nullptr, nullptr, 0, 10, 0xFFFFFFFF, nullptr) == RPC_S_OK &&
                         RpcServerListen(1, 10, TRUE) == RPC_S_OK;
    child.Say(listens ? "listens" : "does not");
    for (std::string line = child.Hear(); !line.empty(); line = child.Hear()) {
        if (line == "calls") {
            child.Say(std::to_string(g_calls.exchange(0)));
            continue;
        }
        g_reply.clear();
        for (size_t i = 0; i + 1 < line.size(); i += 2)
            g_reply.push_back(static_cast<uint8_t>(std::stoi(line.substr(i, 2), nullptr, 16)));
        child.Say("set");
    }
    return 0;
}

std::string Hex(const Bytes& bytes) {
    std::string text;
    for (uint8_t byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text + (bytes.empty() ? "-" : "");
}

} // namespace

TEST(StatusService, UnderNtItIsWaitedFor) {
    NeedsTheLayer("services that were started by hand");
    g_timings.servicePoll = 20;
    EXPECT_FALSE(WaitForStatusService(60)); // it does not exist
    TestProcess service("IsTheService");
    EXPECT_EQ(Tell(service, "4 0 0"), "told");
    EXPECT_TRUE(WaitForStatusService(0));

    // Start pending without a check point: as many polls as two a second, each with its pause.
    EXPECT_EQ(Tell(service, "2 0 5"), "told");
    const double before = NowMs();
    EXPECT_FALSE(WaitForStatusService(4));
    EXPECT_GE(NowMs() - before, 8 * 20);
    // One that announces a check point is waited for without counting, however small or large its hint.
    std::atomic<bool> up{false};
    g_timings.longestWaitHint = 50;
    g_timings.shortestWaitHint = 5;
    for (const char* pending : {"2 1 0", "2 9 4294967295"}) {
        up = false;
        EXPECT_EQ(Tell(service, pending), "told");
        {
            TestThread waiter([&] { up = WaitForStatusService(1); });
            PauseMs(100); // more than its two polls take
            EXPECT_FALSE(up);
            EXPECT_EQ(Tell(service, "4 0 0"), "told");
        }
        EXPECT_TRUE(up) << pending;
    }
    // One that is stopped is not coming.
    service.Kill();
    g_timings.servicePoll = 60000;
    EXPECT_FALSE(WaitForStatusService(60));
}

TEST(StatusService, UnderWindows9xItsWindowIsWaitedForAndItIsRestarted) {
    NeedsTheLayer("Windows 9x");
    g_timings.startUpPoll = 1;
    g_timings.windowPoll = 1;
    g_timings.windowSettle = 1;
    TestProcess window("ShowsTheServiceWindow");
    EXPECT_EQ(window.Hear(), "shown");
    EXPECT_FALSE(WaitForStatusService9x(60)); // the start-up process does not run
    const HANDLE startUp = CreateMutexA(nullptr, FALSE, "TVORPWDMutex");
    ASSERT_NE(startUp, nullptr);
    EXPECT_TRUE(WaitForStatusService9x(60));
    EXPECT_FALSE(WaitForStatusService9x(0));

    InstallProduct();
    g_timings.restartBound = 0;
    g_timings.closePoll = 1;
    SetStartCommand();
    EXPECT_FALSE(RestartStatusService9x()); // not elsewhere
    UseSetting("ORIEL_WINDOWS_VERSION", "9x:4.10");
    EXPECT_TRUE(RestartStatusService9x());
    EXPECT_EQ(window.Hear(), "closed"); // the old one was asked to go
    EXPECT_FALSE(WaitForStatusService9x(1));
    EXPECT_TRUE(WaitUntil([] { return Starts() == 1; }));
    // One that does not go is given up, and no second one is started beside it.
    TestProcess stubborn("ShowsTheServiceWindow", {"stubborn"});
    EXPECT_EQ(stubborn.Hear(), "shown");
    g_timings.closeBound = 50;
    EXPECT_FALSE(RestartStatusService9x());
    stubborn.Kill();
    SetRegistryText("SOFTWARE\\Tavik\\Oriel\\RunServices", "TVORSDB", "\\nowhere\\at\\all");
    EXPECT_FALSE(RestartStatusService9x());
    EXPECT_EQ(Starts(), 1u);
}

TEST(StatusService, AMissingServerIsRestartedBetweenFourCalls) {
    InstallProduct();
    g_timings.restartBound = 0;
    SetStartCommand();
    DatabaseHandle handle = 1;
    {
        const Library library;
        EXPECT_EQ(CreateDatabase("D", &handle), Answer::ServerUnavailable);
        EXPECT_EQ(handle, 0u);
        EXPECT_EQ(Starts(), 0u); // under NT it is not the library's to start
    }
    UseSetting("ORIEL_WINDOWS_VERSION", "9x:4.0");
    const Library library;
    EXPECT_EQ(CreateDatabase("D", &handle), Answer::ServerUnavailable);
    EXPECT_TRUE(WaitUntil([] { return Starts() == 4; })); // also after the fourth
    // Only the creation does so. And a restart that brings it up is the last.
    EXPECT_EQ(OpenDatabase("D", &handle), Answer::ServerUnavailable);
    EXPECT_EQ(Starts(), 4u);
    SetRegistryText("SOFTWARE\\Tavik\\Oriel\\RunServices", "TVORSDB", WindowsPath(ProgramPath("TVSDBN.EXE")));
    g_timings.restartBound = 500;
    Answer answer = CreateDatabase("D", &handle);
    for (int i = 0; i < 20 && answer == Answer::ServerUnavailable; ++i)
        answer = CreateDatabase("D", &handle);
    EXPECT_EQ(answer, Answer::Done);
    const SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
    const SC_HANDLE service = OpenServiceA(manager, "TVORSDB", SERVICE_STOP);
    SERVICE_STATUS status;
    EXPECT_TRUE(ControlService(service, SERVICE_CONTROL_STOP, &status));
}

// Replies of every length and with every count: an answer, or BadStubData, and never more than the buffer holds.
TEST(Client, BrokenRepliesAreFailedCalls) {
    SetUpProduct();
    TestProcess server("AnswersAsTold");
    ASSERT_EQ(server.Hear(), "listens");
    const Library library;
    DatabaseHandle handle = 0;
    product::DatabaseInfo info;
    SYSTEMTIME time = {};
    DWORD size = 0;
    Bytes buffer(8);
    struct Row {
        const char* name;
        Bytes good;
        std::function<Answer()> call;
    };
    const Bytes eight(8, 0x33);
    const Row rows[] = {
        {"CreateDatabase", Joined({Number(5), Number(0)}), [&] { return CreateDatabase("D", &handle); }},
        {"OpenDatabase", Joined({Number(5), Number(0)}), [&] { return OpenDatabase("D", &handle); }},
        {"CloseDatabase", Number(0), [&] { return CloseDatabase(5); }},
        {"GetDatabaseInfo", Joined({Bytes(24, 1), Number(0)}), [&] { return GetDatabaseInfo(5, &info); }},
        {"EndDatabaseInitialization", Number(0), [&] { return EndDatabaseInitialization(5); }},
        {"CreateVariable", Number(0), [&] { return CreateVariable(5, "V", product::kTypeNumber, 4, "abc"); }},
        {"WriteVariable", Number(0), [&] { return WriteVariable(5, "V", "abc", 4); }},
        {"SetCompositeMembers", Number(0), [&] { return SetCompositeMembers(5, "V", "A;B;"); }},
        {"GetWriteTime", Joined({Bytes(28, 1), Number(0)}), [&] { return GetWriteTime(5, "V", &time); }},
        {"ReadVariable", Joined({Number(8), eight, Number(8), Number(0)}),
         [&] { return ReadVariable(5, "V", buffer.data(), 8, &size); }},
        {"ReadVariable of a size", Joined({Number(0), Number(8), Number(0)}),
         [&] { return ReadVariable(5, "V", nullptr, 8, &size); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(Tell(server, Hex(row.good)), "set");
        EXPECT_EQ(row.call(), Answer::Done);
        for (size_t length = 0; length < row.good.size(); ++length) {
            ASSERT_EQ(Tell(server, Hex(Bytes(row.good.begin(), row.good.begin() + static_cast<int>(length)))), "set");
            EXPECT_EQ(row.call(), Answer::BadStubData) << length;
        }
    }
    EXPECT_EQ(buffer, eight);
    EXPECT_EQ(handle, 0u); // of the last failure
    // An array of another length than was asked for, either way; a refusal leaves the buffer alone.
    for (uint32_t count : {0u, 7u, 9u, 0xFFFFFFFFu}) {
        ASSERT_EQ(Tell(server, Hex(Joined({Number(count), Bytes(12, 0x44), Number(8), Number(0)}))), "set");
        EXPECT_EQ(ReadVariable(5, "V", buffer.data(), 8, &size), Answer::BadStubData) << count;
    }
    const Answer tooSmall = static_cast<Answer>(product::kBufferTooSmall);
    ASSERT_EQ(
        Tell(server, Hex(Joined({Number(8), Bytes(8, 0x55), Number(100), Number(static_cast<uint32_t>(tooSmall))}))),
        "set");
    EXPECT_EQ(ReadVariable(5, "V", buffer.data(), 8, &size), tooSmall);
    EXPECT_EQ(size, 100u);
    EXPECT_EQ(buffer, eight);
    // What no message could carry is not sent.
    EXPECT_NE(Tell(server, "calls"), "0");
    EXPECT_EQ(WriteVariable(5, "V", "", 0xFFFFFFFF), Answer::WrongSize);
    EXPECT_EQ(Tell(server, "calls"), "0");
    // A composite is created without a value, whatever size it has.
    ASSERT_EQ(Tell(server, Hex(Number(0))), "set");
    EXPECT_EQ(CreateVariable(5, "V", product::kTypeComposite, 0xFFFFFFFF, nullptr), Answer::Done);

    // Nonsense costs an open its manager and no more.
    g_timings.initialisedBound = 50;
    for (const Bytes& reply : {Bytes(), Bytes(200, 0xFF), Bytes(200), Joined({Number(5), Number(0xFFFFFFFC)}),
                               Joined({Number(1), Number(0)}), Joined({Number(0), Number(0), Number(0), Number(0)})}) {
        ASSERT_EQ(Tell(server, Hex(reply)), "set");
        const int32_t status = OpenStatus(kPrinter, 6);
        EXPECT_TRUE(status == TVS_E_UNAVAILABLE || status == TVS_OK) << status;
    }
}
