#include "kept_lists.h"

#include "product/guards.h"
#include "product/registry_names.h"

#include <new>
#include <string>

namespace {

LSTATUS OpenLists(REGSAM access, RegistryKey* key) {
    const std::string path = std::string(kProductKey) + "\\Access Control Lists";
    return access == KEY_WRITE ? RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                                 access, nullptr, key->Receive(), nullptr)
                               : RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, key->Receive());
}

// Two printers may differ in case, names of values may not; a printer's may have any byte but NUL. So what is neither a
// lower-case letter nor a digit nor a blank is written as %XX.
std::string ValueName(std::string_view printer) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string name;
    for (const char c : printer) {
        const auto byte = static_cast<BYTE>(c);
        const bool plain = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == ' ' || c == '-' || c == '_';
        if (plain)
            name += c;
        else
            name.append({'%', kDigits[byte >> 4], kDigits[byte & 15]});
    }
    return name;
}

} // namespace

LSTATUS KeepAccessList(std::string_view printer, const BYTE* list, DWORD size) {
    try {
        RegistryKey lists;
        if (const LSTATUS status = OpenLists(KEY_WRITE, &lists); status != ERROR_SUCCESS) return status;
        return RegSetValueExA(lists.Get(), ValueName(printer).c_str(), 0, REG_BINARY, list, size);
    } catch (const std::bad_alloc&) {
        return ERROR_OUTOFMEMORY;
    }
}

void ForgetAccessList(std::string_view printer) {
    try {
        RegistryKey lists;
        if (OpenLists(KEY_WRITE, &lists) == ERROR_SUCCESS) RegDeleteValueA(lists.Get(), ValueName(printer).c_str());
    } catch (const std::bad_alloc&) { // it stays, for a printer that nobody opens
    }
}

std::optional<std::vector<BYTE>> KeptAccessList(std::string_view printer) {
    try {
        RegistryKey lists;
        if (OpenLists(KEY_QUERY_VALUE, &lists) != ERROR_SUCCESS) return {};
        const std::string name = ValueName(printer);
        DWORD type = 0;
        DWORD size = 0;
        if (RegQueryValueExA(lists.Get(), name.c_str(), nullptr, &type, nullptr, &size) != ERROR_SUCCESS) return {};
        std::vector<BYTE> list(size);
        if (RegQueryValueExA(lists.Get(), name.c_str(), nullptr, &type, list.data(), &size) != ERROR_SUCCESS ||
            type != REG_BINARY)
            return {};
        list.resize(size);
        return list;
    } catch (const std::bad_alloc&) {
        return {};
    }
}
