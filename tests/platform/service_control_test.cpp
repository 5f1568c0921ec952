// Services: their state seen from other processes, how they start and stop, and records that cannot be believed.
#include "campaign.h"
#include "private_machine.h"
#include "store_kit.h"
#include "test_process.h"

#include <gtest/gtest.h>
#include <windows.h>

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
std::vector<DWORD> Fields(const SERVICE_STATUS& status) {
    return {status.dwCurrentState, status.dwControlsAccepted, status.dwWin32ExitCode, status.dwCheckPoint,
            status.dwWaitHint};
}

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

// Code of the last error when the call failed.
DWORD Code(BOOL result) {
    return result ? ERROR_SUCCESS : GetLastError();
}

} // namespace

TEST(ServiceControl, EveryStateIsSeenByOtherProcesses) {
    CreateTestService("Svc", "/bin/true");
    EXPECT_EQ(Fields(Query("Svc")), (std::vector<DWORD>{SERVICE_STOPPED, 0, ERROR_SERVICE_NEVER_STARTED, 0, 0}));
    TestProcess service("RunsService", {"Svc", "orders"});
    ASSERT_EQ(service.Hear(), "main");
    EXPECT_EQ(Fields(Query("svc")), (std::vector<DWORD>{SERVICE_START_PENDING, 0, 0, 0, 0}));
    const struct {
        const char* order;
        std::vector<DWORD> fields;
    } steps[] = {
        {"2 0 1 500", {SERVICE_START_PENDING, 0, 0, 1, 500}},     {"2 0 2 700", {SERVICE_START_PENDING, 0, 0, 2, 700}},
        {"4 1", {SERVICE_RUNNING, SERVICE_ACCEPT_STOP, 0, 0, 0}}, {"4 0", {SERVICE_RUNNING, 0, 0, 0, 0}},
        {"3 0 5 10", {SERVICE_STOP_PENDING, 0, 0, 5, 10}},        {"1 0 0 0 1234", {SERVICE_STOPPED, 0, 1234, 0, 0}},
    };
    for (const auto& step : steps) {
        service.Tell(step.order);
        ASSERT_EQ(service.Hear(), "told 0");
        EXPECT_EQ(Fields(Query("SVC")), step.fields) << step.order;
    }
    EXPECT_EQ(service.Wait(), 0);
    EXPECT_EQ(Fields(Query("Svc")), (std::vector<DWORD>{SERVICE_STOPPED, 0, 1234, 0, 0}));
}

TEST(ServiceControl, AServiceThatIsKilledIsStoppedAtOnce) {
    CreateTestService("Svc", "/bin/true");
    const int rounds = Rounds(20, 500);
    for (int round = 0; round < rounds; ++round) {
        TestProcess service("RunsService", {"Svc", "orders"});
        ASSERT_EQ(service.Hear(), "main");
        if (round % 2 == 0) {
            service.Tell("4 1");
            service.Hear();
        }
        service.Kill();
        ASSERT_EQ(Fields(Query("Svc")), (std::vector<DWORD>{SERVICE_STOPPED, 0, ERROR_PROCESS_ABORTED, 0, 0}));
    }
}

TEST(ServiceControl, SignalsAreStopControls) {
    for (const bool interrupt : {false, true}) {
        TestProcess service("RunsService", {"Svc", "orders"});
        ASSERT_EQ(service.Hear(), "main");
        // A stop that comes too early is kept until the service accepts one.
        interrupt ? service.Interrupt() : service.Terminate();
        service.Tell("2 0 1");
        ASSERT_EQ(service.Hear(), "told 0");
        service.Tell("4 0");
        ASSERT_EQ(service.Hear(), "told 0");
        EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_RUNNING});
        service.Tell("4 1");
        ASSERT_EQ(service.Hear(), "told 0");
        service.Tell("wait");
        ASSERT_EQ(service.Hear(), "asked to stop");
        EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_STOP_PENDING});
        service.Terminate(); // and one that comes too late does nothing
        service.Tell("1");
        ASSERT_EQ(service.Hear(), "told 0");
        EXPECT_EQ(service.Wait(), 0);
    }
}

TEST(ServiceControl, ASecondInstanceIsRefused) {
    TestProcess first("RunsService", {"Svc", "orders"});
    ASSERT_EQ(first.Hear(), "main");
    TestProcess second("RunsService", {"SVC", "orders"});
    EXPECT_EQ(second.Hear(), "refused " + std::to_string(ERROR_SERVICE_ALREADY_RUNNING));
    TestProcess another("RunsService", {"Other", "orders"});
    EXPECT_EQ(another.Hear(), "main");
    // From the word that it stopped on, the next may come, however long the process still takes.
    first.Tell("1");
    ASSERT_EQ(first.Hear(), "told 0");
    first.Stop();
    TestProcess third("RunsService", {"Svc", "orders"});
    EXPECT_EQ(third.Hear(), "main");
    EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_START_PENDING});
    first.Continue();
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_START_PENDING});
}

TEST(ServiceControl, AMainFunctionWithoutAWordStopsTheService) {
    TestProcess service("RunsService", {"Svc", "silent"});
    EXPECT_EQ(service.Wait(), 0);
    CreateTestService("Svc", "/bin/true");
    EXPECT_EQ(Fields(Query("Svc")), (std::vector<DWORD>{SERVICE_STOPPED, 0, ERROR_PROCESS_ABORTED, 0, 0}));
}

TEST(ServiceControl, AConfiguredServiceIsStartedAndStopped) {
    SC_HANDLE service = CreateTestService("Svc", CommandLine("Svc", "normal"));
    ASSERT_NE(service, nullptr) << GetLastError();
    EXPECT_EQ(CreateTestService("SVC", "/bin/true"), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_EXISTS});

    SERVICE_STATUS status{};
    EXPECT_EQ(Code(ControlService(service, SERVICE_CONTROL_STOP, &status)), DWORD{ERROR_SERVICE_NOT_ACTIVE});
    ASSERT_EQ(Code(StartServiceA(service, 0, nullptr)), DWORD{ERROR_SUCCESS});
    EXPECT_NE(Query("Svc").dwCurrentState, DWORD{SERVICE_STOPPED});
    EXPECT_EQ(Code(StartServiceA(service, 0, nullptr)), DWORD{ERROR_SERVICE_ALREADY_RUNNING});
    ASSERT_TRUE(WaitUntil([] { return Query("Svc").dwCurrentState == SERVICE_RUNNING; }));
    EXPECT_EQ(Code(ControlService(service, SERVICE_CONTROL_INTERROGATE, &status)), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(status.dwCurrentState, DWORD{SERVICE_RUNNING});
    EXPECT_EQ(Code(ControlService(service, 128, &status)), DWORD{ERROR_INVALID_PARAMETER});

    // It goes on without its configuration, and can still be stopped.
    EXPECT_EQ(Code(DeleteService(service)), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(Code(DeleteService(service)), DWORD{ERROR_SERVICE_MARKED_FOR_DELETE});
    EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_RUNNING});
    EXPECT_EQ(Code(ControlService(service, SERVICE_CONTROL_STOP, &status)), DWORD{ERROR_SUCCESS});
    EXPECT_NE(status.dwCurrentState, DWORD{SERVICE_RUNNING});
    ASSERT_TRUE(WaitUntil([] { return Query("Svc").dwCurrentState == ERROR_SERVICE_DOES_NOT_EXIST; }));
    EXPECT_TRUE(QueryServiceStatus(service, &status));
    EXPECT_EQ(Fields(status), (std::vector<DWORD>{SERVICE_STOPPED, 0, 42, 0, 0}));
    EXPECT_EQ(Code(StartServiceA(service, 0, nullptr)), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
    EXPECT_TRUE(CloseServiceHandle(service));
    EXPECT_EQ(Code(CloseServiceHandle(service)), DWORD{ERROR_INVALID_HANDLE});
}

TEST(ServiceControl, WhatCannotStartSaysWhy) {
    const struct {
        const char* name;
        const char* path;
        DWORD start;
        DWORD code;
    } rows[] = {
        {"ends", "/bin/false", SERVICE_DEMAND_START, ERROR_PROCESS_ABORTED},
        {"missing", "\\no\\such\\program", SERVICE_DEMAND_START, ERROR_PATH_NOT_FOUND},
        {"disabled", "/bin/true", SERVICE_DISABLED, ERROR_SERVICE_DISABLED},
    };
    for (const auto& row : rows) {
        SC_HANDLE service = CreateTestService(row.name, row.path, row.start);
        EXPECT_EQ(Code(StartServiceA(service, 0, nullptr)), row.code) << row.name;
    }
    SC_HANDLE service = CreateTestService("arguments", "/bin/true");
    LPCSTR argument = "a";
    EXPECT_EQ(Code(StartServiceA(service, 1, &argument)), DWORD{ERROR_NOT_SUPPORTED});
    // One that is asked to stop while it cannot.
    SERVICE_STATUS status{};
    service = CreateTestService("Svc", "/bin/true");
    TestProcess process("RunsService", {"Svc", "orders"});
    ASSERT_EQ(process.Hear(), "main");
    EXPECT_EQ(Code(ControlService(service, SERVICE_CONTROL_STOP, &status)), DWORD{ERROR_SERVICE_CANNOT_ACCEPT_CTRL});
    EXPECT_EQ(status.dwCurrentState, DWORD{SERVICE_START_PENDING});
    process.Tell("4 0");
    process.Hear();
    EXPECT_EQ(Code(ControlService(service, SERVICE_CONTROL_STOP, &status)), DWORD{ERROR_INVALID_SERVICE_CONTROL});
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
    for (int round = 0; round < 5; ++round) {
        TestProcess one("StartsTheService");
        TestProcess two("StartsTheService");
        one.Hear();
        two.Hear();
        one.Tell("go");
        two.Tell("go");
        std::vector<std::string> codes{one.Hear(), two.Hear()};
        std::sort(codes.begin(), codes.end());
        EXPECT_EQ(codes, (std::vector<std::string>{"0", std::to_string(ERROR_SERVICE_ALREADY_RUNNING)}));
        ASSERT_TRUE(WaitUntil([] { return Query("Svc").dwCurrentState == SERVICE_RUNNING; }));
        SERVICE_STATUS status{};
        EXPECT_EQ(Code(ControlService(service, SERVICE_CONTROL_STOP, &status)), DWORD{ERROR_SUCCESS});
        ASSERT_TRUE(WaitUntil([] { return Query("Svc").dwCurrentState == SERVICE_STOPPED; }));
    }
}

TEST(ServiceControl, ArgumentsAndRightsAreChecked) {
    const auto open = [](const char* machine, const char* database, DWORD access) {
        return Code(OpenSCManagerA(machine, database, access) != nullptr);
    };
    EXPECT_EQ(open("elsewhere", nullptr, SC_MANAGER_CONNECT), DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_EQ(open("", "Other", SC_MANAGER_CONNECT), DWORD{ERROR_INVALID_NAME});
    EXPECT_EQ(open("", SERVICES_ACTIVE_DATABASEA, GENERIC_READ), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(open("", nullptr, 0x40000), DWORD{ERROR_SUCCESS}); // WRITE_DAC
    EXPECT_EQ(open("", nullptr, 0x8000), DWORD{ERROR_ACCESS_DENIED});

    CreateTestService("Svc", "/bin/true");
    for (const std::string& name :
         {std::string(), std::string("a/b"), std::string("a\\b"), std::string("tab\t"), std::string(81, 'n')})
        EXPECT_EQ(Code(OpenServiceA(Manager(), name.c_str(), SERVICE_QUERY_STATUS) != nullptr),
                  DWORD{ERROR_INVALID_NAME});
    EXPECT_EQ(Code(OpenServiceA(Manager(), "absent", SERVICE_QUERY_STATUS) != nullptr),
              DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
    EXPECT_EQ(Code(OpenServiceA(nullptr, "Svc", SERVICE_QUERY_STATUS) != nullptr), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CreateServiceA(Manager(SC_MANAGER_CONNECT), "New", nullptr, 0, SERVICE_WIN32_OWN_PROCESS,
                             SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, "x", nullptr, nullptr, nullptr, nullptr,
                             nullptr),
              nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(CreateServiceA(Manager(), "New", nullptr, 0, 0x20, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, "x",
                             nullptr, nullptr, nullptr, nullptr, nullptr),
              nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    SERVICE_STATUS status{};
    SC_HANDLE service = OpenServiceA(Manager(), "Svc", SERVICE_INTERROGATE);
    EXPECT_EQ(Code(QueryServiceStatus(service, &status)), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Code(StartServiceA(service, 0, nullptr)), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Code(ControlService(service, SERVICE_CONTROL_STOP, &status)), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Code(DeleteService(service)), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Code(QueryServiceStatus(Manager(), &status)), DWORD{ERROR_INVALID_HANDLE});

    // The service's own calls, in a process that is none.
    EXPECT_EQ(RegisterServiceCtrlHandlerA("Svc", OnControl), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_NOT_IN_EXE});
    EXPECT_EQ(Code(SetServiceStatus(nullptr, &status)), DWORD{ERROR_INVALID_HANDLE});
    const SERVICE_TABLE_ENTRYA empty[] = {{nullptr, nullptr}};
    EXPECT_EQ(Code(StartServiceCtrlDispatcherA(empty)), DWORD{ERROR_INVALID_DATA});
}

CHILD_PROCESS(LooksAsAnotherUser) {
    if (!BecomeNobody()) return 1;
    std::string said = std::to_string(Query("Svc").dwCurrentState);
    for (const DWORD access : {SERVICE_START, SERVICE_STOP, static_cast<int>(DELETE), SERVICE_INTERROGATE})
        said += " " + std::to_string(Code(OpenServiceA(Manager(SC_MANAGER_CONNECT), "Svc", access) != nullptr));
    child.Say(said + " " + std::to_string(Code(Manager(SC_MANAGER_CREATE_SERVICE) != nullptr)));
    // Holds on to what it may read, and runs a service of that name itself.
    const bool locked = LockForReading(RecordFile("SVC"));
    child.Say(locked ? "locked" : "not locked");
    child.Hear();
    return 0;
}

TEST(ServiceControl, AnotherUserLooksAndCannotBeInTheWay) {
    if (!IsRoot()) GTEST_SKIP() << "only root can become another user";
    SC_HANDLE service = CreateTestService("Svc", CommandLine("Svc", "normal"));
    ASSERT_TRUE(StartServiceA(service, 0, nullptr));
    ASSERT_TRUE(WaitUntil([] { return Query("Svc").dwCurrentState == SERVICE_RUNNING; }));
    SERVICE_STATUS status{};
    ASSERT_TRUE(ControlService(service, SERVICE_CONTROL_STOP, &status));
    ASSERT_TRUE(WaitUntil([] { return Query("Svc").dwCurrentState == SERVICE_STOPPED; }));
    TestProcess other("LooksAsAnotherUser");
    EXPECT_EQ(other.Hear(), "1 5 5 5 0 5");
    ASSERT_EQ(other.Hear(), "locked");
    EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_STOPPED});
    ASSERT_EQ(Code(StartServiceA(service, 0, nullptr)), DWORD{ERROR_SUCCESS});
    ASSERT_TRUE(WaitUntil([] { return Query("Svc").dwCurrentState == SERVICE_RUNNING; }));
    ASSERT_TRUE(ControlService(service, SERVICE_CONTROL_STOP, &status));
}

CHILD_PROCESS(PretendsToBeTheService) {
    if (!BecomeNobody()) return 1;
    return RunsServiceChild(child);
}

TEST(ServiceControl, ARecordThatCannotBeBelievedIsNoService) {
    CreateTestService("Svc", "/bin/true");
    TestProcess service("RunsService", {"Svc", "orders"});
    ASSERT_EQ(service.Hear(), "main");
    service.Tell("4 1");
    service.Hear();
    const std::string sound = ReadWholeFile(RecordFile("SVC"));
    service.Kill();

    for (const Plant plant : {Plant::kLink, Plant::kPipe, Plant::kDirectory}) {
        ASSERT_TRUE(PlantInPlace(RecordFile("SVC"), plant, PrivateDirectory() + "/state"));
        EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_STOPPED}) << static_cast<int>(plant);
        TestProcess next("RunsService", {"Svc", "orders"});
        EXPECT_EQ(next.Hear(), "main");
    }
    std::mt19937_64 random(Seed());
    for (int round = 0; round < 200; ++round) {
        std::string damaged = sound.substr(0, round % 5 == 0 ? random() % sound.size() : sound.size());
        if (!damaged.empty()) damaged[random() % damaged.size()] ^= static_cast<char>(1 + random() % 255);
        ReplaceFile(RecordFile("SVC"), damaged);
        ASSERT_EQ(Fields(Query("Svc")), (std::vector<DWORD>{SERVICE_STOPPED, 0, ERROR_PROCESS_ABORTED, 0, 0}));
    }
    std::filesystem::remove(RecordFile("SVC"));
    if (!IsRoot()) return;
    TestProcess pretender("PretendsToBeTheService", {"Svc", "orders"});
    ASSERT_EQ(pretender.Hear(), "main");
    EXPECT_EQ(Fields(Query("Svc")), (std::vector<DWORD>{SERVICE_STOPPED, 0, ERROR_SERVICE_NEVER_STARTED, 0, 0}));
    TestProcess real("RunsService", {"Svc", "orders"});
    EXPECT_EQ(real.Hear(), "main");
    EXPECT_EQ(Query("Svc").dwCurrentState, DWORD{SERVICE_START_PENDING});
}

TEST(ServiceControl, TheSupervisorIsTold) {
    NotifySocket supervisor(PrivateDirectory() + "/notify");
    TestProcess service("RunsService", {"Svc", "orders"}, {{"NOTIFY_SOCKET", supervisor.Path()}});
    ASSERT_EQ(service.Hear(), "main");
    for (const char* order : {"2 0 1", "4 1", "4 1", "3 0 1", "1"}) {
        service.Tell(order);
        ASSERT_EQ(service.Hear(), "told 0");
    }
    EXPECT_EQ(service.Wait(), 0);
    EXPECT_EQ(supervisor.Messages(), (std::vector<std::string>{"READY=1", "STOPPING=1"}));
}
