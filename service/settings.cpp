#include "settings.h"

#include "product/guards.h"
#include "product/registry_names.h"

bool ReadSetting(const char* name, DWORD type, void* value, DWORD size) {
    const RegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, kProductKey, KEY_QUERY_VALUE);
    DWORD found = 0;
    return key &&
           RegQueryValueExA(key.Get(), name, nullptr, &found, static_cast<BYTE*>(value), &size) == ERROR_SUCCESS &&
           found == type;
}
