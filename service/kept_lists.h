// Access control lists that outlive the service and the machine: values of a key of the product's, one for each
// printer, the list as the variable has it. No state.
#pragma once

#include <windows.h>

#include <optional>
#include <string_view>
#include <vector>

// ERROR_SUCCESS, or the registry's code; ERROR_OUTOFMEMORY.
LSTATUS KeepAccessList(std::string_view printer, const BYTE* list, DWORD size);
void ForgetAccessList(std::string_view printer);
// Nothing when none is kept, or it cannot be read.
std::optional<std::vector<BYTE>> KeptAccessList(std::string_view printer);
