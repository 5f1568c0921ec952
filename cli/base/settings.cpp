// No state.
#include "base/settings.h"

#include "base/failure.h"
#include "base/registry.h"

#include "product/registry_names.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr Setting kSettings[] = {
    {"ForwardLimit", "milliseconds that a printer may take for a request; read when the service starts", 10, 600000,
     60000},
    {settings::kHistoryDays, "days that the history goes back; read when the recorder starts", 1, 3660, 30},
    {settings::kHistoryMegabytes, "megabytes (MiB) that the history may take; read when the recorder starts", 8, 65536,
     256},
    {settings::kViews, "command lines of views that 'oriel up' runs, such as \"log --record\"; read every 2 s"},
};

std::optional<RegistryValue> ValueOf(const char* name) {
    const RegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, kProductKey, KEY_QUERY_VALUE);
    return key ? ReadValue(key.Get(), name) : std::nullopt;
}

void Write(const Setting& setting, DWORD type, const void* data, size_t size) {
    RegistryKey key;
    LSTATUS status = CreateKey(HKEY_LOCAL_MACHINE, kProductKey, key);
    if (status == ERROR_SUCCESS)
        status =
            RegSetValueExA(key.Get(), setting.name, 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size));
    if (status != ERROR_SUCCESS)
        throw SystemFailure(static_cast<uint32_t>(status), std::string("cannot store the setting ") + setting.name);
}

} // namespace

std::span<const Setting> Settings() {
    return kSettings;
}

const Setting* FindSetting(const std::string& name) {
    const auto setting = std::find_if(std::begin(kSettings), std::end(kSettings),
                                      [&](const Setting& each) { return lstrcmpiA(each.name, name.c_str()) == 0; });
    return setting == std::end(kSettings) ? nullptr : setting;
}

DWORD ReadNumberSetting(const char* name) {
    const Setting& setting = *FindSetting(name);
    const std::optional<RegistryValue> value = ValueOf(name);
    DWORD number = 0;
    if (!value || value->type != REG_DWORD || value->data.size() != sizeof number) return setting.initial;
    std::memcpy(&number, value->data.data(), sizeof number);
    return std::clamp(number, setting.least, setting.most);
}

std::vector<std::string> ReadListSetting(const char* name) {
    std::vector<std::string> texts;
    const std::optional<RegistryValue> value = ValueOf(name);
    if (!value || value->type != REG_MULTI_SZ) return texts;
    // Each text has a NUL behind it; an empty one ends the list.
    for (auto at = value->data.begin(); at != value->data.end() && *at != '\0';) {
        const auto end = std::find(at, value->data.end(), '\0');
        texts.emplace_back(at, end);
        at = end == value->data.end() ? end : end + 1;
    }
    return texts;
}

bool HasValue(const Setting& setting) {
    return ValueOf(setting.name).has_value();
}

void WriteNumberSetting(const Setting& setting, DWORD number) {
    Write(setting, REG_DWORD, &number, sizeof number);
}

void WriteListSetting(const Setting& setting, const std::vector<std::string>& texts) {
    std::string data;
    for (const std::string& text : texts)
        data += text + '\0';
    data += '\0';
    Write(setting, REG_MULTI_SZ, data.data(), data.size());
}

void RemoveSetting(const Setting& setting) {
    LSTATUS status = ERROR_FILE_NOT_FOUND;
    if (const RegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, kProductKey, KEY_SET_VALUE, &status))
        status = RegDeleteValueA(key.Get(), setting.name);
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND)
        throw SystemFailure(static_cast<uint32_t>(status), std::string("cannot remove the setting ") + setting.name);
}
