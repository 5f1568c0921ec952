#include "status_service.h"

#include <gtest/gtest.h>

DWORD ServiceState() {
    const SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
    const SC_HANDLE service = OpenServiceA(manager, "TVORSDB", SERVICE_QUERY_STATUS);
    SERVICE_STATUS status = {};
    status.dwCurrentState = SERVICE_STOPPED;
    if (service) QueryServiceStatus(service, &status);
    if (service) CloseServiceHandle(service);
    CloseServiceHandle(manager);
    return status.dwCurrentState;
}

Service::Service() : process(StartTheService()) {
    EXPECT_TRUE(WaitUntil([] { return ServiceState() == SERVICE_RUNNING; }, 20000)) << process.Errors();
}

Bytes BytesOf(std::string_view text) {
    Bytes bytes(text.begin(), text.end());
    bytes.push_back(0);
    return bytes;
}

Bytes Number(DWORD value) {
    return {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
            static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
}
