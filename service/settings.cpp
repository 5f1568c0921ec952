#include "settings.h"

bool ReadSetting(const char* name, DWORD type, void* value, DWORD size) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kSettingsKey, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS) return false;
    DWORD found = 0;
    const LSTATUS status = RegQueryValueExA(key, name, nullptr, &found, static_cast<BYTE*>(value), &size);
    RegCloseKey(key);
    return status == ERROR_SUCCESS && found == type;
}
