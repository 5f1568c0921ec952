// The registry: values and keys as Win32 has them.
#include "kit.h"

#include <algorithm>
#include <tuple>

namespace {

const HKEY kMachine = HKEY_LOCAL_MACHINE;

// Which calls a handle allows, a letter for each; "x" for one that fails otherwise than by access denied.
std::string AllowedCalls(HKEY key) {
    HKEY created = nullptr;
    const LSTATUS results[] = {
        GetValue(key, "v").status,
        SetValue(key, "v", "2"),
        RegDeleteValueA(key, "gone"),
        NameAt(key, 0, kSubKeys),
        NameAt(key, 0, kValues),
        RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr),
        TryCreateKey(key, "New", &created),
    };
    RegDeleteKeyA(key, "New");
    std::string allowed = "qsdkvic";
    for (size_t call = 0; call < std::size(results); ++call)
        if (results[call] != ERROR_SUCCESS && results[call] != ERROR_FILE_NOT_FOUND)
            allowed[call] = results[call] == ERROR_ACCESS_DENIED ? '_' : 'x';
    return allowed;
}

} // namespace

TEST(Registry, ValuesKeepTypeAndExactBytes) {
    HKEY key = CreateKey(kMachine, "Software\\Values");
    const std::tuple<const char*, DWORD, std::string> values[] = {
        {"", REG_SZ, std::string("default\0", 8)},
        {"multi", REG_MULTI_SZ, std::string("a\0b\0\0", 5)},
        {"none", REG_NONE, ""},
        {"own type", 0xfffffff0, std::string("\0\xff\0", 3)},
        {"largest", REG_BINARY, std::string(1 << 20, 'x')},
    };
    for (const auto& [name, type, data] : values)
        ASSERT_EQ(SetValue(key, name, data, type), ERROR_SUCCESS) << name;
    for (const auto& [name, type, data] : values) {
        EXPECT_EQ(GetValue(key, name), (Value{ERROR_SUCCESS, type, data})) << name;
        // The size alone; and a byte less than it takes: told, and nothing written.
        const auto whole = static_cast<DWORD>(data.size());
        DWORD size = 7, told = 0;
        EXPECT_EQ(RegQueryValueExA(key, name, nullptr, nullptr, nullptr, &size), ERROR_SUCCESS);
        EXPECT_EQ(size, whole);
        if (data.empty()) continue;
        std::vector<BYTE> buffer(size--, '#');
        EXPECT_EQ(RegQueryValueExA(key, name, nullptr, &told, buffer.data(), &size), ERROR_MORE_DATA);
        EXPECT_EQ(std::pair(size, told), std::pair(whole, type));
        EXPECT_EQ(buffer, std::vector<BYTE>(whole, '#'));
    }
    EXPECT_EQ(GetValue(key, "absent").status, ERROR_FILE_NOT_FOUND);
    const LSTATUS tooLarge = SetValue(key, "too large", std::string((1 << 20) + 1, 'x'));
    EXPECT_EQ(tooLarge, OnTheLayer() ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS);
    EXPECT_EQ(SetValue(key, std::string(16383, 'n'), "longest"), ERROR_SUCCESS);
    EXPECT_EQ(SetValue(key, std::string(16384, 'n'), "too long"), ERROR_INVALID_PARAMETER);
}

TEST(Registry, NamesCompareWithoutCaseAndKeepTheirSpelling) {
    HKEY key = CreateKey(kMachine, "SoftWare\\Tavik\\Caf\xe9");
    EXPECT_EQ(NamesIn(OpenKey(kMachine, "SOFTWARE\\TAVIK"), kSubKeys), Names{"Caf\xe9"});
    OpenKey(kMachine, "software\\tavik\\CAF\xc9"); // E with an acute accent, upper case
    ASSERT_EQ(SetValue(key, "Na\xefve", "1"), ERROR_SUCCESS);
    ASSERT_EQ(SetValue(key, "NA\xcfVE", "2"), ERROR_SUCCESS);
    EXPECT_EQ(NamesIn(key, kValues), Names{"Na\xefve"});
    EXPECT_EQ(GetValue(key, "na\xefVE").data, "2");
    EXPECT_EQ(RegDeleteValueA(key, "nA\xcfve"), ERROR_SUCCESS);
}

TEST(Registry, PathsAreReadAsWindowsReadsThem) {
    const std::string longest(255, 'k');
    CreateKey(kMachine, "A\\B\\" + longest);
    const std::tuple<std::string, LSTATUS, LSTATUS> paths[] = {
        // how it is opened and created
        {"A\\B\\", ERROR_SUCCESS, ERROR_SUCCESS},
        {"", ERROR_SUCCESS, ERROR_SUCCESS},
        {"\\A", ERROR_BAD_PATHNAME, ERROR_BAD_PATHNAME},
        {"A\\C", ERROR_FILE_NOT_FOUND, ERROR_SUCCESS},
        {"A\\B\\" + longest + "k", ERROR_INVALID_PARAMETER, ERROR_INVALID_PARAMETER},
    };
    for (const auto& [path, open, create] : paths) {
        HKEY key = nullptr;
        EXPECT_EQ(RegOpenKeyExA(kMachine, path.c_str(), 0, KEY_READ, &key), open) << path;
        EXPECT_EQ(key != nullptr, open == ERROR_SUCCESS);
        EXPECT_EQ(TryCreateKey(kMachine, path, &key), create) << path;
    }
}

TEST(Registry, HandlesHaveOnlyTheRightsTheyWereOpenedWith) {
    CreateKey(kMachine, "K\\Sub");
    SetValue(OpenKey(kMachine, "K"), "v", "1");
    // Windows asks the key, not the handle, whether it may be looked at and have subkeys.
    const size_t asked = OnTheLayer() ? 7 : 5;
    const std::pair<REGSAM, std::string> rows[] = {{KEY_READ, "q__kvi_"},
                                                   {KEY_QUERY_VALUE, "q___vi_"},
                                                   {KEY_WRITE, "_sd___c"},
                                                   {KEY_ALL_ACCESS, "qsdkvic"},
                                                   {MAXIMUM_ALLOWED, "qsdkvic"}};
    for (const auto& [access, allowed] : rows)
        EXPECT_EQ(AllowedCalls(OpenKey(kMachine, "K", access)).substr(0, asked), allowed.substr(0, asked)) << access;
}

TEST(Registry, HandlesOutliveNeitherTheirCloseNorTheirKey) {
    HKEY key = CreateKey(kMachine, "K\\Gone");
    EXPECT_EQ(RegDeleteKeyA(kMachine, "K"), ERROR_ACCESS_DENIED); // it has a subkey
    EXPECT_EQ(RegDeleteKeyA(kMachine, ""), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteKeyA(kMachine, "K\\gone"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteKeyA(kMachine, "K\\gone"), ERROR_FILE_NOT_FOUND);
    for (const bool madeAgain : {false, true}) {
        if (madeAgain) CreateKey(kMachine, "K\\Gone");
        EXPECT_EQ(AllowedCalls(key), "xxxxxxx");
        EXPECT_EQ(GetValue(key, "v").status, ERROR_KEY_DELETED);
    }
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    if (!OnTheLayer()) return; // where a handle of any kind is closed, and its number is used again
    for (HKEY bad : {key, HKEY(nullptr), static_cast<HKEY>(NewEvent())}) {
        EXPECT_EQ(RegCloseKey(bad), ERROR_INVALID_HANDLE);
        EXPECT_EQ(GetValue(bad, "v").status, ERROR_INVALID_HANDLE);
    }
}

TEST(Registry, EnumerationIsInTheOrderOfCreation) {
    HKEY key = CreateKey(kMachine, "Order");
    for (const std::string name : {"zebra", "Apple", "mango", "banana"}) {
        CreateKey(key, name);
        SetValue(key, name, name.substr(0, 3));
    }
    SetValue(key, "ZEBRA", "replaced", REG_SZ);
    RegDeleteValueA(key, "mango");
    RegDeleteKeyA(key, "apple");
    const Names names = NamesIn(key, kValues);
    EXPECT_TRUE(names == (Names{"zebra", "Apple", "banana"}) || !OnTheLayer()); // elsewhere in any order
    EXPECT_TRUE(NamesIn(key, kSubKeys) == (Names{"zebra", "mango", "banana"}) || !OnTheLayer());

    DWORD subKeys, longestSubKey, values, longestValue, longestData;
    RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &subKeys, &longestSubKey, nullptr, &values, &longestValue,
                     &longestData, nullptr, nullptr);
    EXPECT_EQ(std::vector({subKeys, longestSubKey, values, longestValue}), (std::vector<DWORD>{3, 6, 3, 6}));
    EXPECT_TRUE(longestData == 8 || (!OnTheLayer() && longestData > 8)); // Windows counts text as it keeps it
    // Buffers of just the size, and one less.
    char name[7] = "######";
    const auto banana = static_cast<DWORD>(std::find(names.begin(), names.end(), "banana") - names.begin());
    const auto enumerate = [&](DWORD nameSize, DWORD dataSize) {
        BYTE data[3];
        return RegEnumValueA(key, banana, name, &nameSize, nullptr, nullptr, data, &dataSize);
    };
    EXPECT_EQ(enumerate(6, 3), ERROR_MORE_DATA);
    EXPECT_EQ(enumerate(7, 2), ERROR_MORE_DATA);
    EXPECT_EQ(enumerate(7, 3), ERROR_SUCCESS);
    EXPECT_STREQ(name, "banana");
}
