// Services: their state seen from other processes, how they start and stop, and records that cannot be believed.
#include "campaign.h"
#include "kit.h"
#include "notify_socket.h"
#include "private_machine.h"

#include <filesystem>
#include <sstream>

namespace {

// ---- a service, as a child process

SERVICE_STATUS_HANDLE g_status;
HANDLE g_stopEvent;
Child* g_child;
std::string g_name, g_mode;

// "state accepted checkpoint hint exitcode" as the service tells it; its state, and what came of it.
std::pair<DWORD, DWORD> Tell(const std::string& fields) {
    SERVICE_STATUS status{.dwServiceType = SERVICE_WIN32_OWN_PROCESS};
    std::istringstream(fields) >> status.dwCurrentState >> status.dwControlsAccepted >> status.dwCheckPoint >>
        status.dwWaitHint >> status.dwWin32ExitCode;
    return {status.dwCurrentState, Code(SetServiceStatus(g_status, &status))};
}

VOID WINAPI OnControl(DWORD control) {
    if (control != SERVICE_CONTROL_STOP) return;
    Tell("3 0 1 1000 0");
    SetEvent(g_stopEvent);
}

VOID WINAPI ServiceMain(DWORD count, LPSTR* arguments) {
    if (count != 1 || g_mode == "silent" || g_name != arguments[0]) return;
    g_status = RegisterServiceCtrlHandlerA(g_name.c_str(), OnControl);
    if (g_mode == "normal") {
        Tell("2 0 1 500 0");
        Tell("4 1 0 0 0");
        WaitForSingleObject(g_stopEvent, INFINITE);
        Tell("1 0 0 0 42");
        return;
    }
    // Else it tells what it is told, line by line, until it has told that it stopped.
    g_child->Say("main");
    for (std::string order = g_child->Hear(); !order.empty(); order = g_child->Hear()) {
        if (order == "wait") {
            WaitForSingleObject(g_stopEvent, INFINITE);
            g_child->Say("asked to stop");
            continue;
        }
        const auto [state, result] = Tell(order + " 0 0 0 0");
        g_child->Say("told " + std::to_string(result));
        if (state == SERVICE_STOPPED) return;
    }
}

} // namespace

CHILD_PROCESS(RunsService) {
    g_child = &child;
    g_name = child.arguments[0];
    g_mode = child.arguments[1];
    g_stopEvent = NewEvent();
    if (g_mode == "as nobody" && !BecomeNobody()) return 1;
    const SERVICE_TABLE_ENTRYA table[] = {{g_name.data(), ServiceMain}, {nullptr, nullptr}};
    if (StartServiceCtrlDispatcherA(table)) return 0;
    child.Say("refused " + std::to_string(GetLastError()));
    return 3;
}

namespace {

// ---- those who look at it

SC_HANDLE Manager(DWORD access = SC_MANAGER_ALL_ACCESS) {
    return OpenSCManagerA(nullptr, nullptr, access);
}

// "state controls exitcode checkpoint hint", or the error.
std::string Query(const char* name = "Svc") {
    SERVICE_STATUS status{};
    SC_HANDLE service = OpenServiceA(Manager(SC_MANAGER_CONNECT), name, SERVICE_QUERY_STATUS);
    if (!service || !QueryServiceStatus(service, &status)) return "error " + std::to_string(GetLastError());
    std::ostringstream text;
    text << status.dwCurrentState << " " << status.dwControlsAccepted << " " << status.dwWin32ExitCode << " "
         << status.dwCheckPoint << " " << status.dwWaitHint;
    return text.str();
}

std::string Stopped(DWORD exitCode) {
    return "1 0 " + std::to_string(exitCode) + " 0 0";
}

const char* const kStarting = "2 0 0 0 0";
const char* const kRunning = "4 1 0 0 0";

bool WaitForState(const std::string& state) {
    return WaitUntil([&] { return Query() == state; });
}

DWORD Control(SC_HANDLE service, DWORD control = SERVICE_CONTROL_STOP) {
    SERVICE_STATUS status{};
    return Code(ControlService(service, control, &status));
}

// A service process that does as it is told.
struct Ordered : TestProcess {
    explicit Ordered(const Environment& environment = {}) : TestProcess("RunsService", {"Svc", "orders"}, environment) {
        EXPECT_EQ(Hear(), "main");
    }
    void Order(const char* order) {
        Tell(order);
        EXPECT_EQ(Hear(), "told 0") << order;
    }
};

SC_HANDLE Create(const std::string& name, const std::string& path, DWORD start = SERVICE_DEMAND_START) {
    return CreateServiceA(Manager(), name.c_str(), nullptr, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, start,
                          SERVICE_ERROR_NORMAL, path.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
}

SC_HANDLE CreateNormal() {
    return Create("Svc", "\"" + WindowsPath(OwnProgram()) + "\" --child=RunsService Svc normal");
}

std::string RecordFile() {
    return PrivateDirectory() + "/run/services/SVC.status";
}

} // namespace

TEST(ServiceControl, EveryStateIsSeenByOtherProcesses) {
    Create("Svc", "/bin/true");
    EXPECT_EQ(Query(), Stopped(ERROR_SERVICE_NEVER_STARTED));
    NotifySocket supervisor(PrivateDirectory() + "/notify");
    Ordered service({{"NOTIFY_SOCKET", PrivateDirectory() + "/notify"}});
    EXPECT_EQ(Query("svc"), kStarting);
    const std::pair<const char*, const char*> steps[] = {{"2 0 1 500", "2 0 0 1 500"},
                                                         {"4 1", kRunning},
                                                         {"4 0", "4 0 0 0 0"},
                                                         {"3 0 5 10", "3 0 0 5 10"},
                                                         {"1 0 0 0 1234", "1 0 1234 0 0"}};
    for (const auto& [order, seen] : steps) {
        service.Order(order);
        EXPECT_EQ(Query("SVC"), seen);
    }
    EXPECT_EQ(service.Wait(), 0);
    EXPECT_EQ(Query(), Stopped(1234));
    EXPECT_EQ(supervisor.Messages(), (std::vector<std::string>{"READY=1", "STOPPING=1"}));
    EXPECT_EQ(TestProcess("RunsService", {"Svc", "silent"}).Wait(), 0);
    EXPECT_EQ(Query(), Stopped(ERROR_PROCESS_ABORTED)) << "a main function that told nothing";
}

TEST(ServiceControlCampaign, AServiceThatIsKilledIsStoppedAtOnce) {
    Create("Svc", "/bin/true");
    for (int round = Rounds(10, 500); round > 0; --round) {
        Ordered service;
        if (round % 2 != 0) service.Order("4 1");
        service.Kill();
        ASSERT_EQ(Query(), Stopped(ERROR_PROCESS_ABORTED));
    }
    // What the killed one left, "running", is not taken for the word of the next, which has the record but told
    // nothing.
    TestProcess next = Ready("HoldsAFile", {RecordFile()});
    EXPECT_EQ(Query(), kStarting);
}

TEST(ServiceControl, SignalsAreStopControls) {
    for (const bool interrupt : {false, true}) {
        Ordered service;
        // A stop that comes too early is kept until the service accepts one.
        interrupt ? service.Interrupt() : service.Terminate();
        service.Order("2 0 1");
        service.Order("4 0");
        EXPECT_EQ(Query(), "4 0 0 0 0");
        service.Order("4 1");
        service.Tell("wait");
        ASSERT_EQ(service.Hear(), "asked to stop");
        EXPECT_EQ(Query(), "3 0 0 1 1000");
        service.Terminate(); // and one that comes too late does nothing
        service.Order("1");
        EXPECT_EQ(service.Wait(), 0);
    }
}

TEST(ServiceControl, ASecondInstanceIsRefused) {
    Ordered first;
    EXPECT_EQ(TestProcess("RunsService", {"SVC", "orders"}).Hear(),
              "refused " + std::to_string(ERROR_SERVICE_ALREADY_RUNNING));
    // From the word that it stopped on, the next may come, however long the process still takes.
    first.Order("1");
    first.Stop();
    const Ordered third;
    EXPECT_EQ(Query(), kStarting);
    first.Continue();
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(Query(), kStarting);
}

TEST(ServiceControl, AConfiguredServiceIsStartedAndStopped) {
    SC_HANDLE service = CreateNormal();
    EXPECT_FAILS(Create("SVC", "/bin/true"), ERROR_SERVICE_EXISTS);
    SERVICE_STATUS status{};
    EXPECT_EQ(Control(service), DWORD{ERROR_SERVICE_NOT_ACTIVE});
    ASSERT_TRUE(StartServiceA(service, 0, nullptr)) << GetLastError();
    EXPECT_NE(Query()[0], '1');
    EXPECT_FAILS(StartServiceA(service, 0, nullptr), ERROR_SERVICE_ALREADY_RUNNING);
    ASSERT_TRUE(WaitForState(kRunning));
    EXPECT_EQ(Control(service, 128), DWORD{ERROR_INVALID_PARAMETER});

    // It goes on without its configuration, and can still be stopped.
    EXPECT_TRUE(DeleteService(service));
    EXPECT_FAILS(DeleteService(service), ERROR_SERVICE_MARKED_FOR_DELETE);
    EXPECT_EQ(Query(), kRunning);
    EXPECT_TRUE(ControlService(service, SERVICE_CONTROL_STOP, &status));
    EXPECT_NE(status.dwCurrentState, DWORD{SERVICE_RUNNING});
    ASSERT_TRUE(
        WaitUntil([&] { return QueryServiceStatus(service, &status) && status.dwCurrentState == SERVICE_STOPPED; }));
    EXPECT_EQ(status.dwWin32ExitCode, 42U);
    ASSERT_TRUE(WaitForState("error 1060"));
    EXPECT_FAILS(StartServiceA(service, 0, nullptr), ERROR_SERVICE_DOES_NOT_EXIST);
}

TEST(ServiceControl, WhatCannotBeSaysWhy) {
    EXPECT_FAILS(StartServiceA(Create("ends", "/bin/false"), 0, nullptr), ERROR_PROCESS_ABORTED);
    EXPECT_FAILS(StartServiceA(Create("missing", "\\no\\such\\program"), 0, nullptr), ERROR_PATH_NOT_FOUND);
    EXPECT_FAILS(StartServiceA(Create("off", "/bin/true", SERVICE_DISABLED), 0, nullptr), ERROR_SERVICE_DISABLED);
    SC_HANDLE service = Create("Svc", "/bin/true");
    Ordered process;
    EXPECT_EQ(Control(service), DWORD{ERROR_SERVICE_CANNOT_ACCEPT_CTRL});
    process.Order("4 0");
    EXPECT_EQ(Control(service), DWORD{ERROR_INVALID_SERVICE_CONTROL});

    EXPECT_FAILS(OpenServiceA(Manager(), "absent", SERVICE_QUERY_STATUS), ERROR_SERVICE_DOES_NOT_EXIST);
    for (const std::string& name : {std::string(), std::string("a/b"), std::string(81, 'n')})
        EXPECT_FAILS(Create(name, "x"), ERROR_INVALID_NAME);
    SERVICE_STATUS status{};
    SC_HANDLE weak = OpenServiceA(Manager(), "Svc", SERVICE_INTERROGATE);
    EXPECT_FAILS(QueryServiceStatus(weak, &status), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(StartServiceA(weak, 0, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_EQ(Control(weak), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_FAILS(DeleteService(weak), ERROR_ACCESS_DENIED);
}

CHILD_PROCESS(LooksAsAnotherUser) {
    if (!BecomeNobody()) return 1;
    std::string said = Query();
    for (const DWORD access : {SERVICE_START, SERVICE_STOP, static_cast<int>(DELETE), SERVICE_INTERROGATE})
        said += " " + std::to_string(Code(OpenServiceA(Manager(SC_MANAGER_CONNECT), "Svc", access)));
    said += " " + std::to_string(Code(Manager(SC_MANAGER_CREATE_SERVICE)));
    // Holds on to what it may read.
    child.Say(said + (LockWholeFile(RecordFile(), true) ? " locked" : " not locked"));
    child.Hear();
    return 0;
}

TEST_AS_ROOT(ServiceControl, AnotherUserLooksAndCannotBeInTheWay) {
    SC_HANDLE service = CreateNormal();
    Ordered().Order("1");
    std::filesystem::remove(RecordFile());
    EXPECT_EQ(TestProcess("RunsService", {"Svc", "as nobody"}).Hear(), "refused 5");
    EXPECT_EQ(Query(), Stopped(ERROR_SERVICE_NEVER_STARTED));
    Ordered().Order("1");
    TestProcess other("LooksAsAnotherUser");
    EXPECT_EQ(other.Hear(), "1 0 0 0 0 5 5 5 0 5 locked");
    EXPECT_EQ(Query(), Stopped(0));
    ASSERT_TRUE(StartServiceA(service, 0, nullptr)) << GetLastError();
    ASSERT_TRUE(WaitForState(kRunning));
    EXPECT_EQ(Control(service), DWORD{ERROR_SUCCESS});
}

TEST(ServiceControl, ARecordThatCannotBeBelievedIsNoService) {
    Create("Svc", "/bin/true");
    Ordered().Order("4 1");
    const std::string sound = ReadWholeFile(RecordFile());
    for (const Plant plant : kPlants) {
        ASSERT_TRUE(PlantInPlace(RecordFile(), plant, PrivateDirectory() + "/state"));
        EXPECT_EQ(Query()[0], '1') << static_cast<int>(plant);
        const Ordered next;
    }
    std::mt19937_64 random(Seed());
    for (int round = 0; round < 200; ++round) {
        ReplaceFile(RecordFile(),
                    Damaged(sound.substr(0, round % 5 == 0 ? random() % sound.size() : sound.size()), random));
        ASSERT_EQ(Query(), Stopped(ERROR_PROCESS_ABORTED));
    }
}
