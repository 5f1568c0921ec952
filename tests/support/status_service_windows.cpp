#include "private_machine.h"
#include "status_service.h"

#include <gtest/gtest.h>

TestProcess StartTheService() {
    const SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    SC_HANDLE service = CreateServiceA(manager, "TVORSDB", "TVORSDB", SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                                       SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, ProgramPath("TVSDBN.EXE").c_str(),
                                       nullptr, nullptr, nullptr, nullptr, nullptr);
    if (!service) service = OpenServiceA(manager, "TVORSDB", SERVICE_ALL_ACCESS);
    // The manager needs a moment to learn that the one before was killed.
    EXPECT_TRUE(WaitUntil([&] {
        return StartServiceA(service, 0, nullptr) || GetLastError() != ERROR_SERVICE_ALREADY_RUNNING;
    })) << GetLastError();
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    EXPECT_TRUE(
        QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status, &needed))
        << GetLastError();
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
    return TestProcess::Adopted(status.dwProcessId);
}

void Service::Stop() {
    const SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
    const SC_HANDLE service = OpenServiceA(manager, "TVORSDB", SERVICE_STOP);
    SERVICE_STATUS status = {};
    EXPECT_TRUE(ControlService(service, SERVICE_CONTROL_STOP, &status)) << GetLastError();
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
}
