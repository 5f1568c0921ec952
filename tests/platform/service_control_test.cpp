// Services: their state seen from other processes, how they start and stop, and records that cannot be believed.
#include "campaign.h"
#include "notify_socket.h"
#include "posix_kit.h"
#include "private_machine.h"
#include "win32_kit.h"

#include <algorithm>
#include <filesystem>
#include <random>
#include <sstream>

namespace {

// ---- a service, as a child process

SERVICE_STATUS_HANDLE g_status;
HANDLE g_stopEvent;
Child* g_child;
std::string g_name;
std::string g_mode;

DWORD Tell(DWORD state, DWORD accepted = 0, DWORD checkPoint = 0, DWORD waitHint = 0, DWORD exitCode = 0) {
    SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, state, accepted, exitCode, 0, checkPoint, waitHint};
    return SetServiceStatus(g_status, &status) ? ERROR_SUCCESS : GetLastError();
}

VOID WINAPI OnControl(DWORD control) {
    if (control != SERVICE_CONTROL_STOP) return;
    Tell(SERVICE_STOP_PENDING, 0, 1, 1000);
    SetEvent(g_stopEvent);
}

// Does what it is told, line by line: "state accepted checkpoint hint exitcode", until it has told that it stopped.
void FollowOrders() {
    for (;;) {
        const std::string order = g_child->Hear();
        if (order == "wait") {
            WaitForSingleObject(g_stopEvent, INFINITE);
            g_child->Say("asked to stop");
            continue;
        }
        std::istringstream words(order);
        DWORD state = 0, accepted = 0, checkPoint = 0, hint = 0, exitCode = 0;
        words >> state >> accepted >> checkPoint >> hint >> exitCode;
        const DWORD result = Tell(state, accepted, checkPoint, hint, exitCode);
        g_child->Say("told " + std::to_string(result));
        if (state == SERVICE_STOPPED || order.empty()) return;
    }
}

VOID WINAPI ServiceMain(DWORD count, LPSTR* arguments) {
    EXPECT_EQ(count, 1U);
    if (g_mode == "silent" || g_name != arguments[0]) return;
    g_status = RegisterServiceCtrlHandlerA(g_name.c_str(), OnControl);
    if (g_mode == "orders") {
        g_child->Say("main");
        FollowOrders();
    } else {
        Tell(SERVICE_START_PENDING, 0, 1, 500);
        Tell(SERVICE_RUNNING, SERVICE_ACCEPT_STOP);
        WaitForSingleObject(g_stopEvent, INFINITE);
        Tell(SERVICE_STOPPED, 0, 0, 0, 42);
    }
}

} // namespace

CHILD_PROCESS(RunsService) {
    g_child = &child;
    g_name = child.arguments[0];
    g_mode = child.arguments[1];
    g_stopEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const SERVICE_TABLE_ENTRYA table[] = {{g_name.data(), ServiceMain}, {nullptr, nullptr}};
    if (!StartServiceCtrlDispatcherA(table)) {
        child.Say("refused " + std::to_string(GetLastError()));
        return 3;
    }
    return 0;
}

namespace {

// ---- those who look at it

SC_HANDLE Manager(DWORD access = SC_MANAGER_ALL_ACCESS) {
    return OpenSCManagerA(nullptr, nullptr, access);
}

SERVICE_STATUS Query(const char* name) {
    SERVICE_STATUS status{};
    SC_HANDLE service = OpenServiceA(Manager(SC_MANAGER_CONNECT), name, SERVICE_QUERY_STATUS);
    if (service == nullptr || !QueryServiceStatus(service, &status)) status.dwCurrentState = GetLastError();
    return status;
}

// State, controls, exit code, check point, wait hint.
using Fields = std::vector<DWORD>;
Fields FieldsOf(const SERVICE_STATUS& status) {
    return {status.dwCurrentState, status.dwControlsAccepted, status.dwWin32ExitCode, status.dwCheckPoint,
            status.dwWaitHint};
}

Fields Stopped(DWORD exitCode) {
    return {SERVICE_STOPPED, 0, exitCode, 0, 0};
}

bool WaitForState(const char* name, DWORD state) {
    return WaitUntil([&] { return Query(name).dwCurrentState == state; });
}

DWORD Stop(SC_HANDLE service) {
    SERVICE_STATUS status{};
    return Code(ControlService(service, SERVICE_CONTROL_STOP, &status));
}

// A service process that does as it is told. Windows takes no process for a service that it did not start itself.
struct Ordered : TestProcess {
    explicit Ordered(const char* name = "Svc", const Environment& environment = {})
        : TestProcess((NeedsTheLayer("services that were started by hand"), "RunsService"), {name, "orders"},
                      environment) {
        EXPECT_EQ(Hear(), "main");
    }
    void Order(const char* order) {
        Tell(order);
        EXPECT_EQ(Hear(), "told 0") << order;
    }
};

std::string CommandLine(const std::string& name, const std::string& mode) {
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, sizeof program);
    return "\"" + std::string(program) + "\" --child=RunsService " + name + " " + mode;
}

SC_HANDLE CreateTestService(const std::string& name, const std::string& path, DWORD start = SERVICE_DEMAND_START) {
    return CreateServiceA(Manager(), name.c_str(), nullptr, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, start,
                          SERVICE_ERROR_NORMAL, path.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
}

std::string RecordFile(const std::string& name) {
    return PrivateDirectory() + "/run/services/" + name + ".status";
}

} // namespace

TEST(ServiceControl, EveryStateIsSeenByOtherProcesses) {
    CreateTestService("Svc", "/bin/true");
    EXPECT_EQ(FieldsOf(Query("Svc")), Stopped(ERROR_SERVICE_NEVER_STARTED));
    Ordered service;
    EXPECT_EQ(FieldsOf(Query("svc")), (Fields{SERVICE_START_PENDING, 0, 0, 0, 0}));
    const struct {
        const char* order;
        Fields fields;
    } steps[] = {
        {"2 0 1 500", {SERVICE_START_PENDING, 0, 0, 1, 500}},
        {"4 1", {SERVICE_RUNNING, SERVICE_ACCEPT_STOP, 0, 0, 0}},
        {"4 0", {SERVICE_RUNNING, 0, 0, 0, 0}},
        {"3 0 5 10", {SERVICE_STOP_PENDING, 0, 0, 5, 10}},
        {"1 0 0 0 1234", Stopped(1234)},
    };
    for (const auto& step : steps) {
        service.Order(step.order);
        EXPECT_EQ(FieldsOf(Query("SVC")), step.fields) << step.order;
    }
    EXPECT_EQ(service.Wait(), 0);
    EXPECT_EQ(FieldsOf(Query("Svc")), Stopped(1234));
    EXPECT_EQ(TestProcess("RunsService", {"Svc", "silent"}).Wait(), 0);
    EXPECT_EQ(FieldsOf(Query("Svc")), Stopped(ERROR_PROCESS_ABORTED)) << "a main function that told nothing";
}

CHILD_PROCESS(LocksTheRecord) {
    child.Say(LockWholeFile(RecordFile("SVC")) ? "locked" : "failed");
    child.Hear();
    return 0;
}

TEST(ServiceControlCampaign, AServiceThatIsKilledIsStoppedAtOnce) {
    CreateTestService("Svc", "/bin/true");
    const int rounds = Rounds(10, 500);
    for (int round = 0; round < rounds; ++round) {
        Ordered service;
        if (round % 2 != 0) service.Order("4 1");
        service.Kill();
        ASSERT_EQ(FieldsOf(Query("Svc")), Stopped(ERROR_PROCESS_ABORTED));
    }
    // What the killed one left, "running", is not taken for the word of the next, which has the record but told
    // nothing.
    TestProcess next("LocksTheRecord");
    ASSERT_EQ(next.Hear(), "locked");
    EXPECT_EQ(FieldsOf(Query("Svc")), (Fields{SERVICE_START_PENDING, 0, 0, 0, 0}));
}

TEST(ServiceControl, SignalsAreStopControls) {
    for (const bool interrupt : {false, true}) {
        Ordered service;
        // A stop that comes too early is kept until the service accepts one.
        interrupt ? service.Interrupt() : service.Terminate();
        service.Order("2 0 1");
        service.Order("4 0");
        EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_RUNNING});
        service.Order("4 1");
        service.Tell("wait");
        ASSERT_EQ(service.Hear(), "asked to stop");
        EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_STOP_PENDING});
        service.Terminate(); // and one that comes too late does nothing
        service.Order("1");
        EXPECT_EQ(service.Wait(), 0);
    }
}

TEST(ServiceControl, ASecondInstanceIsRefused) {
    Ordered first;
    TestProcess second("RunsService", {"SVC", "orders"});
    EXPECT_EQ(second.Hear(), "refused " + std::to_string(ERROR_SERVICE_ALREADY_RUNNING));
    const Ordered another("Other");
    // From the word that it stopped on, the next may come, however long the process still takes.
    first.Order("1");
    first.TestProcess::Stop();
    const Ordered third;
    EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_START_PENDING});
    first.Continue();
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_START_PENDING});
}

TEST(ServiceControl, AConfiguredServiceIsStartedAndStopped) {
    SC_HANDLE service = CreateTestService("Svc", CommandLine("Svc", "normal"));
    ASSERT_NE(service, nullptr) << GetLastError();
    EXPECT_FAILS(CreateTestService("SVC", "/bin/true"), ERROR_SERVICE_EXISTS);
    SERVICE_STATUS status{};
    EXPECT_EQ(Stop(service), DWORD{ERROR_SERVICE_NOT_ACTIVE});
    ASSERT_TRUE(StartServiceA(service, 0, nullptr)) << GetLastError();
    EXPECT_NE(Query("Svc").dwCurrentState, DWORD{SERVICE_STOPPED});
    EXPECT_FAILS(StartServiceA(service, 0, nullptr), ERROR_SERVICE_ALREADY_RUNNING);
    ASSERT_TRUE(WaitForState("Svc", SERVICE_RUNNING));
    EXPECT_TRUE(ControlService(service, SERVICE_CONTROL_INTERROGATE, &status));
    EXPECT_EQ(status.dwCurrentState, DWORD{SERVICE_RUNNING});
    if (OnTheLayer()) {
        EXPECT_FAILS(ControlService(service, 128, &status), ERROR_INVALID_PARAMETER);
    }

    // It goes on without its configuration, and can still be stopped.
    EXPECT_TRUE(DeleteService(service));
    EXPECT_FAILS(DeleteService(service), ERROR_SERVICE_MARKED_FOR_DELETE);
    EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_RUNNING});
    EXPECT_TRUE(ControlService(service, SERVICE_CONTROL_STOP, &status));
    EXPECT_NE(status.dwCurrentState, DWORD{SERVICE_RUNNING});
    ASSERT_TRUE(
        WaitUntil([&] { return QueryServiceStatus(service, &status) && status.dwCurrentState == SERVICE_STOPPED; }));
    EXPECT_EQ(FieldsOf(status), Stopped(42));
    if (OnTheLayer()) { // Windows keeps what somebody has a handle of
        ASSERT_TRUE(WaitForState("Svc", ERROR_SERVICE_DOES_NOT_EXIST));
        EXPECT_FAILS(StartServiceA(service, 0, nullptr), ERROR_SERVICE_DOES_NOT_EXIST);
    }
    EXPECT_FALSE(StartServiceA(service, 0, nullptr));
    EXPECT_TRUE(CloseServiceHandle(service));
    ASSERT_TRUE(WaitForState("Svc", ERROR_SERVICE_DOES_NOT_EXIST));
    EXPECT_FAILS(CloseServiceHandle(service), ERROR_INVALID_HANDLE);
}

TEST(ServiceControl, WhatCannotStartOrStopSaysWhy) {
    NeedsTheLayer("programs of Linux");
    const struct {
        const char* name;
        const char* path;
        DWORD start;
        DWORD error;
    } rows[] = {
        {"ends", "/bin/false", SERVICE_DEMAND_START, ERROR_PROCESS_ABORTED},
        {"missing", "\\no\\such\\program", SERVICE_DEMAND_START, ERROR_PATH_NOT_FOUND},
        {"disabled", "/bin/true", SERVICE_DISABLED, ERROR_SERVICE_DISABLED},
    };
    for (const auto& row : rows)
        EXPECT_FAILS(StartServiceA(CreateTestService(row.name, row.path, row.start), 0, nullptr), row.error);
    SC_HANDLE service = CreateTestService("Svc", "/bin/true");
    LPCSTR argument = "a";
    EXPECT_FAILS(StartServiceA(service, 1, &argument), ERROR_NOT_SUPPORTED);
    Ordered process;
    EXPECT_EQ(Stop(service), DWORD{ERROR_SERVICE_CANNOT_ACCEPT_CTRL});
    process.Order("4 0");
    EXPECT_EQ(Stop(service), DWORD{ERROR_INVALID_SERVICE_CONTROL});
}

CHILD_PROCESS(StartsTheService) {
    SC_HANDLE service = OpenServiceA(Manager(SC_MANAGER_CONNECT), "Svc", SERVICE_START);
    child.Say("ready");
    child.Hear();
    child.Say(std::to_string(Code(StartServiceA(service, 0, nullptr))));
    return 0;
}

TEST(ServiceControl, OfTwoWhoStartItAtOnceOneIsFirst) {
    SC_HANDLE service = CreateTestService("Svc", CommandLine("Svc", "normal"));
    for (int round = 0; round < 3; ++round) {
        TestProcess both[] = {TestProcess("StartsTheService"), TestProcess("StartsTheService")};
        for (TestProcess& one : both)
            one.Hear();
        for (TestProcess& one : both)
            one.Tell("go");
        std::vector<std::string> codes{both[0].Hear(), both[1].Hear()};
        std::sort(codes.begin(), codes.end());
        EXPECT_EQ(codes, (std::vector<std::string>{"0", std::to_string(ERROR_SERVICE_ALREADY_RUNNING)}));
        ASSERT_TRUE(WaitForState("Svc", SERVICE_RUNNING));
        EXPECT_EQ(Stop(service), DWORD{ERROR_SUCCESS});
        ASSERT_TRUE(WaitForState("Svc", SERVICE_STOPPED));
    }
}

TEST(ServiceControl, ArgumentsAndRightsAreChecked) {
    CreateTestService("Svc", "/bin/true");
    if (OnTheLayer()) {
        EXPECT_FAILS(OpenSCManagerA("elsewhere", nullptr, SC_MANAGER_CONNECT), ERROR_NOT_SUPPORTED);
        EXPECT_FAILS(Manager(0x8000), ERROR_ACCESS_DENIED);
    }
    EXPECT_FAILS(OpenServiceA(Manager(), "absent", SERVICE_QUERY_STATUS), ERROR_SERVICE_DOES_NOT_EXIST);
    for (const std::string& name : {std::string(), std::string("a/b"), std::string(OnTheLayer() ? 81 : 257, 'n')})
        EXPECT_FAILS(CreateTestService(name, "x"), ERROR_INVALID_NAME);
    SERVICE_STATUS status{};
    SC_HANDLE service = OpenServiceA(Manager(), "Svc", SERVICE_INTERROGATE);
    EXPECT_FAILS(QueryServiceStatus(service, &status), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(StartServiceA(service, 0, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(ControlService(service, SERVICE_CONTROL_STOP, &status), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(DeleteService(service), ERROR_ACCESS_DENIED);
    // The service's own calls, in a process that is none.
    EXPECT_FAILS(RegisterServiceCtrlHandlerA("Svc", OnControl), ERROR_SERVICE_NOT_IN_EXE);
    EXPECT_FAILS(SetServiceStatus(nullptr, &status), ERROR_INVALID_HANDLE);
}

CHILD_PROCESS(LooksAsAnotherUser) {
    if (!BecomeNobody()) return 1;
    std::string said = std::to_string(Query("Svc").dwCurrentState);
    for (const DWORD access : {SERVICE_START, SERVICE_STOP, static_cast<int>(DELETE), SERVICE_INTERROGATE})
        said += " " + std::to_string(Code(OpenServiceA(Manager(SC_MANAGER_CONNECT), "Svc", access)));
    child.Say(said + " " + std::to_string(Code(Manager(SC_MANAGER_CREATE_SERVICE))));
    // Holds on to what it may read.
    child.Say(LockWholeFile(RecordFile("SVC"), true) ? "locked" : "not locked");
    child.Hear();
    return 0;
}

TEST_AS_ROOT(ServiceControl, AnotherUserLooksAndCannotBeInTheWay) {
    SC_HANDLE service = CreateTestService("Svc", CommandLine("Svc", "normal"));
    Ordered().Order("1");
    TestProcess other("LooksAsAnotherUser");
    EXPECT_EQ(other.Hear(), "1 5 5 5 0 5");
    ASSERT_EQ(other.Hear(), "locked");
    EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_STOPPED});
    ASSERT_TRUE(StartServiceA(service, 0, nullptr)) << GetLastError();
    ASSERT_TRUE(WaitForState("Svc", SERVICE_RUNNING));
    EXPECT_EQ(Stop(service), DWORD{ERROR_SUCCESS});
}

CHILD_PROCESS(PretendsToBeTheService) {
    if (!BecomeNobody()) return 1;
    return RunsServiceChild(child);
}

TEST(ServiceControl, ARecordThatCannotBeBelievedIsNoService) {
    CreateTestService("Svc", "/bin/true");
    std::string sound;
    {
        Ordered service;
        service.Order("4 1");
        sound = ReadWholeFile(RecordFile("SVC"));
    }
    for (const Plant plant : {Plant::kLink, Plant::kPipe, Plant::kDirectory}) {
        ASSERT_TRUE(PlantInPlace(RecordFile("SVC"), plant, PrivateDirectory() + "/state"));
        EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_STOPPED}) << static_cast<int>(plant);
        const Ordered next;
    }
    std::mt19937_64 random(Seed());
    for (int round = 0; round < 200; ++round) {
        std::string damaged = sound.substr(0, round % 5 == 0 ? random() % sound.size() : sound.size());
        if (!damaged.empty()) damaged[random() % damaged.size()] ^= static_cast<char>(1 + random() % 255);
        ReplaceFile(RecordFile("SVC"), damaged);
        ASSERT_EQ(FieldsOf(Query("Svc")), Stopped(ERROR_PROCESS_ABORTED));
    }
    std::filesystem::remove(RecordFile("SVC"));
    if (!RunsAsRoot()) return;
    TestProcess pretender("PretendsToBeTheService", {"Svc", "orders"});
    ASSERT_EQ(pretender.Hear(), "main");
    EXPECT_EQ(FieldsOf(Query("Svc")), Stopped(ERROR_SERVICE_NEVER_STARTED));
    const Ordered real;
    EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_START_PENDING});
}

TEST(ServiceControl, TheSupervisorIsTold) {
    NotifySocket supervisor(PrivateDirectory() + "/notify");
    Ordered service("Svc", {{"NOTIFY_SOCKET", PrivateDirectory() + "/notify"}});
    for (const char* order : {"2 0 1", "4 1", "4 1", "3 0 1", "1"})
        service.Order(order);
    EXPECT_EQ(service.Wait(), 0);
    EXPECT_EQ(supervisor.Messages(), (std::vector<std::string>{"READY=1", "STOPPING=1"}));
}
