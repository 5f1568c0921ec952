// The registry in strings.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>
#include <winreg_text.h>

using Names = std::vector<std::string>;

inline HKEY OpenKey(HKEY parent, const std::string& path, REGSAM access = KEY_ALL_ACCESS) {
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(parent, path.c_str(), 0, access, &key), ERROR_SUCCESS) << path;
    return key;
}

inline LSTATUS TryCreateKey(HKEY parent, const std::string& path, HKEY* key = nullptr, REGSAM access = KEY_ALL_ACCESS) {
    HKEY created = nullptr;
    return RegCreateKeyExA(parent, path.c_str(), 0, nullptr, 0, access, nullptr, key != nullptr ? key : &created,
                           nullptr);
}

inline HKEY CreateKey(HKEY parent, const std::string& path) {
    HKEY key = nullptr;
    EXPECT_EQ(TryCreateKey(parent, path, &key), ERROR_SUCCESS) << path;
    return key;
}

inline LSTATUS SetValue(HKEY key, const std::string& name, const std::string& data, DWORD type = REG_BINARY) {
    return RegSetValueExA(key, name.c_str(), 0, type, reinterpret_cast<const BYTE*>(data.data()),
                          static_cast<DWORD>(data.size()));
}

struct Value {
    LSTATUS status;
    DWORD type = 0;
    std::string data = {};
    bool operator==(const Value&) const = default;
};

inline Value GetValue(HKEY key, const std::string& name) {
    Value value{ERROR_SUCCESS};
    DWORD size = 0;
    value.status = RegQueryValueExA(key, name.c_str(), nullptr, &value.type, nullptr, &size);
    if (value.status != ERROR_SUCCESS) return {value.status};
    value.data.resize(size);
    auto* data = reinterpret_cast<BYTE*>(value.data.data());
    value.status = RegQueryValueExA(key, name.c_str(), nullptr, &value.type, data, &size);
    return value;
}

inline LSTATUS NameAt(HKEY key, DWORD index, bool isValue, std::string* name = nullptr) {
    char text[256];
    DWORD size = sizeof text;
    const LSTATUS status = isValue ? RegEnumValueA(key, index, text, &size, nullptr, nullptr, nullptr, nullptr)
                                   : RegEnumKeyExA(key, index, text, &size, nullptr, nullptr, nullptr, nullptr);
    if (status == ERROR_SUCCESS && name != nullptr) name->assign(text, size);
    return status;
}

inline Names NamesIn(HKEY key, bool ofValues) {
    Names names(1);
    while (NameAt(key, static_cast<DWORD>(names.size() - 1), ofValues, &names.back()) == ERROR_SUCCESS)
        names.emplace_back();
    names.pop_back();
    return names;
}
inline Names SubKeys(HKEY key) {
    return NamesIn(key, false);
}
inline Names ValueNames(HKEY key) {
    return NamesIn(key, true);
}

inline LSTATUS Import(const std::string& text, DWORD* line = nullptr) {
    return RegImportTextA(text.data(), text.size(), line);
}

// The code stands for the text when there is none.
inline std::string Export(HKEY key, const char* path = nullptr) {
    SIZE_T length = 0;
    LSTATUS status = RegExportTextA(key, path, nullptr, &length);
    std::string text(length, '\0');
    if (status == ERROR_SUCCESS) status = RegExportTextA(key, path, text.data(), &length);
    return status == ERROR_SUCCESS ? text : std::to_string(status);
}
