// Reading, writing and listing the registry with strings and vectors. No state.
#pragma once

#include "base/handles.h"
#include "base/text.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

struct RegistryValue {
    std::string name; // ANSI, as stored; empty: the key's default value
    DWORD type = REG_NONE;
    Bytes data;

    // Text of REG_SZ and REG_EXPAND_SZ up to its NUL; nothing for other types.
    std::optional<std::string> Text() const;
};

// None when the key cannot be opened; error then has the system's code.
RegistryKey OpenKey(HKEY root, const std::string& path, REGSAM access, LSTATUS* error = nullptr);
LSTATUS CreateKey(HKEY root, const std::string& path, RegistryKey& key);

std::optional<RegistryValue> ReadValue(HKEY key, const std::string& name);
std::optional<std::string> ReadText(HKEY root, const std::string& path, const std::string& name);
LSTATUS WriteText(HKEY root, const std::string& path, const std::string& name, const std::string& text);

// In the order of the registry. The list is cut short when another process deletes the key meanwhile.
std::vector<RegistryValue> ListValues(HKEY key);
std::vector<std::string> ListSubkeys(HKEY key);
// Deletes the key with everything below it.
LSTATUS DeleteTree(HKEY root, const std::string& path);
