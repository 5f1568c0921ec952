// The calls of registry.h. No state.
#include "base/registry.h"

#include "product/growing_reads.h"

namespace {

constexpr DWORD kLongestKeyName = 256;
constexpr DWORD kLongestValueName = 16384;

} // namespace

std::optional<std::string> RegistryValue::Text() const {
    if (type != REG_SZ && type != REG_EXPAND_SZ) return std::nullopt;
    const std::string text(data.begin(), data.end());
    return text.substr(0, text.find('\0'));
}

RegistryKey OpenKey(HKEY root, const std::string& path, REGSAM access, LSTATUS* error) {
    return OpenKey(root, path.c_str(), access, error);
}

LSTATUS CreateKey(HKEY root, const std::string& path, RegistryKey& key) {
    return RegCreateKeyExA(root, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_READ | KEY_WRITE, nullptr,
                           key.Receive(), nullptr);
}

std::optional<RegistryValue> ReadValue(HKEY key, const std::string& name) {
    RegistryValue value{.name = name};
    const ReadAttempt result = ReadWhileItGrows([&] {
        DWORD size = 0;
        if (RegQueryValueExA(key, name.c_str(), nullptr, nullptr, nullptr, &size) != ERROR_SUCCESS)
            return ReadAttempt::Failed;
        value.data.resize(size ? size : 1); // an empty value needs an address too
        const LSTATUS status = RegQueryValueExA(key, name.c_str(), nullptr, &value.type, value.data.data(), &size);
        if (status == ERROR_SUCCESS) value.data.resize(size);
        return status == ERROR_SUCCESS     ? ReadAttempt::Done
               : status == ERROR_MORE_DATA ? ReadAttempt::Grew
                                           : ReadAttempt::Failed;
    });
    return result == ReadAttempt::Done ? std::optional(std::move(value)) : std::nullopt;
}

std::optional<std::string> ReadText(HKEY root, const std::string& path, const std::string& name) {
    const RegistryKey key = OpenKey(root, path, KEY_QUERY_VALUE);
    if (!key) return std::nullopt;
    const std::optional<RegistryValue> value = ReadValue(key.Get(), name);
    return value ? value->Text() : std::nullopt;
}

LSTATUS WriteText(HKEY root, const std::string& path, const std::string& name, const std::string& text) {
    RegistryKey key;
    if (const LSTATUS status = CreateKey(root, path, key); status != ERROR_SUCCESS) return status;
    return RegSetValueExA(key.Get(), name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                          static_cast<DWORD>(text.size() + 1));
}

std::vector<RegistryValue> ListValues(HKEY key) {
    std::vector<RegistryValue> values;
    std::string name(kLongestValueName, '\0');
    for (DWORD index = 0;; ++index) {
        DWORD nameSize = kLongestValueName;
        const LSTATUS status = RegEnumValueA(key, index, name.data(), &nameSize, nullptr, nullptr, nullptr, nullptr);
        if (status != ERROR_SUCCESS) return values;
        if (auto value = ReadValue(key, name.substr(0, nameSize))) values.push_back(std::move(*value));
    }
}

std::vector<std::string> ListSubkeys(HKEY key) {
    std::vector<std::string> names;
    std::string name(kLongestKeyName, '\0');
    for (DWORD index = 0;; ++index) {
        DWORD size = kLongestKeyName;
        if (RegEnumKeyExA(key, index, name.data(), &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            return names;
        names.push_back(name.substr(0, size));
    }
}

LSTATUS DeleteTree(HKEY root, const std::string& path) {
    LSTATUS status = ERROR_SUCCESS;
    {
        const RegistryKey key = OpenKey(root, path, KEY_READ, &status);
        if (!key) return status;
        for (const std::string& name : ListSubkeys(key.Get())) {
            status = DeleteTree(key.Get(), name);
            if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) return status;
        }
    }
    return RegDeleteKeyA(root, path.c_str());
}
