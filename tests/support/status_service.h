// The real service on the test's private machine, and bytes as its variables have them.
#pragma once

#include "test_process.h"

#include <windows.h>

#include <string_view>
#include <vector>

// What the service manager says of the service: SERVICE_STOPPED when it is not there.
DWORD ServiceState();

// A started service, serving when the constructor returns. Killed with the test, unless it is stopped before.
struct Service {
    Service();
    TestProcess process;
};

using Bytes = std::vector<unsigned char>;
Bytes BytesOf(std::string_view text); // with its NUL
Bytes Number(DWORD value);
