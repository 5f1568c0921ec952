// The real service on the test's private machine, and bytes as its variables have them.
#pragma once

#include "test_process.h"

#include <windows.h>

#include <string_view>
#include <vector>

// What the service manager says of the service: SERVICE_STOPPED when it is not there.
DWORD ServiceState();

// Starts its process; a file for each system, since Windows lets a service be started by its service manager alone.
TestProcess StartTheService();

// A started service, serving when the constructor returns. Killed with the test, unless it is stopped before.
struct Service {
    Service();
    void Stop(); // asks it to, as its supervisor or its manager does; a file for each system
    TestProcess process;
};

using Bytes = std::vector<unsigned char>;
Bytes BytesOf(std::string_view text); // with its NUL
Bytes Number(DWORD value);
