// The registry: values and keys as Win32 has them, between processes and users, and over a damaged store.
#include "campaign.h"
#include "private_machine.h"
#include "store_kit.h"
#include "test_process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <random>
#include <winreg_text.h>

namespace {

const HKEY kMachine = HKEY_LOCAL_MACHINE;

std::string MachineStore() {
    return PrivateDirectory() + "/state/registry/HKLM.sqlite";
}

HKEY Open(HKEY parent, const char* path, REGSAM access = KEY_ALL_ACCESS) {
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(parent, path, 0, access, &key), ERROR_SUCCESS) << path;
    return key;
}

HKEY Create(HKEY parent, const std::string& path, REGSAM access = KEY_ALL_ACCESS) {
    HKEY key = nullptr;
    EXPECT_EQ(RegCreateKeyExA(parent, path.c_str(), 0, nullptr, 0, access, nullptr, &key, nullptr), ERROR_SUCCESS)
        << path;
    return key;
}

LSTATUS Set(HKEY key, const std::string& name, const std::string& data, DWORD type = REG_BINARY) {
    return RegSetValueExA(key, name.c_str(), 0, type, reinterpret_cast<const BYTE*>(data.data()),
                          static_cast<DWORD>(data.size()));
}

struct Value {
    LSTATUS status;
    DWORD type = 0;
    std::string data = {};
    bool operator==(const Value&) const = default;
};

Value Get(HKEY key, const std::string& name) {
    DWORD type = 0;
    DWORD size = 0;
    LSTATUS status = RegQueryValueExA(key, name.c_str(), nullptr, &type, nullptr, &size);
    if (status != ERROR_SUCCESS) return {status};
    std::string data(size, '\0');
    status = RegQueryValueExA(key, name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &size);
    return {status, type, data};
}

std::vector<std::string> SubKeys(HKEY key) {
    std::vector<std::string> names;
    char name[256];
    for (DWORD index = 0;; ++index) {
        DWORD size = sizeof name;
        const LSTATUS status = RegEnumKeyExA(key, index, name, &size, nullptr, nullptr, nullptr, nullptr);
        if (status != ERROR_SUCCESS) {
            EXPECT_EQ(status, ERROR_NO_MORE_ITEMS);
            return names;
        }
        names.emplace_back(name, size);
    }
}

std::vector<std::string> ValueNames(HKEY key) {
    std::vector<std::string> names;
    char name[256];
    DWORD size = sizeof name;
    for (DWORD index = 0; RegEnumValueA(key, index, name, &size, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++index, size = sizeof name)
        names.emplace_back(name, size);
    return names;
}

LSTATUS Import(const std::string& text, DWORD* line = nullptr) {
    return RegImportTextA(text.data(), text.size(), line);
}

// The code stands for the text when there is none.
std::string Export(HKEY key) {
    SIZE_T length = 0;
    LSTATUS status = RegExportTextA(key, nullptr, nullptr, &length);
    if (status != ERROR_SUCCESS) return std::to_string(status);
    std::string text(length, '\0');
    status = RegExportTextA(key, nullptr, text.data(), &length);
    return status == ERROR_SUCCESS ? text : std::to_string(status);
}

using Names = std::vector<std::string>;

} // namespace

TEST(Registry, ValuesKeepTypeAndExactBytes) {
    HKEY key = Create(kMachine, "Software\\Values");
    const struct {
        const char* name;
        DWORD type;
        std::string data;
    } values[] = {
        {"", REG_SZ, std::string("default\0", 8)},
        {"unterminated", REG_SZ, "text"},
        {"expand", REG_EXPAND_SZ, std::string("%PATH%\0", 7)},
        {"multi", REG_MULTI_SZ, std::string("a\0b\0\0", 5)},
        {"word", REG_DWORD, std::string("\1\2\3\4", 4)},
        {"short word", REG_DWORD, "\1"},
        {"quad", REG_QWORD, "12345678"},
        {"none", REG_NONE, ""},
        {"own type", 0xfffffff0, std::string("\0\xff\0", 3)},
        {"largest", REG_BINARY, std::string(1 << 20, 'x')},
        {"a\\b\"c", REG_BINARY, "name with marks"},
    };
    for (const auto& value : values)
        ASSERT_EQ(Set(key, value.name, value.data, value.type), ERROR_SUCCESS) << value.name;
    for (const auto& value : values) {
        EXPECT_EQ(Get(key, value.name), (Value{ERROR_SUCCESS, value.type, value.data})) << value.name;
        // A byte less than it takes: told, and nothing written.
        if (value.data.empty()) continue;
        std::string buffer(value.data.size(), '#');
        DWORD type = 0;
        DWORD size = static_cast<DWORD>(value.data.size()) - 1;
        EXPECT_EQ(RegQueryValueExA(key, value.name, nullptr, &type, reinterpret_cast<BYTE*>(buffer.data()), &size),
                  ERROR_MORE_DATA);
        EXPECT_EQ(size, value.data.size());
        EXPECT_EQ(type, value.type);
        EXPECT_EQ(buffer.find_first_not_of('#'), std::string::npos);
    }
    EXPECT_EQ(Get(key, "absent").status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Set(key, "too large", std::string((1 << 20) + 1, 'x')), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(Set(key, std::string(16383, 'n'), "longest"), ERROR_SUCCESS);
    EXPECT_EQ(Set(key, std::string(16384, 'n'), "too long"), ERROR_INVALID_PARAMETER);
    BYTE byte = 0;
    DWORD size = 1;
    DWORD reserved = 0;
    EXPECT_EQ(RegQueryValueExA(key, "", nullptr, nullptr, &byte, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegQueryValueExA(key, "", &reserved, nullptr, &byte, &size), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegSetValueExA(key, "", 0, REG_BINARY, nullptr, 1), ERROR_INVALID_PARAMETER);
}

TEST(Registry, NamesCompareWithoutCaseAndKeepTheirSpelling) {
    HKEY key = Create(kMachine, "SoftWare\\Caf\xe9");
    EXPECT_EQ(SubKeys(Open(kMachine, "SOFTWARE")), Names{"Caf\xe9"});
    Open(kMachine, "software\\CAF\xc9"); // E with an acute accent, upper case
    ASSERT_EQ(Set(key, "Na\xefve", "1"), ERROR_SUCCESS);
    ASSERT_EQ(Set(key, "NA\xcfVE", "2"), ERROR_SUCCESS);
    EXPECT_EQ(ValueNames(key), Names{"Na\xefve"});
    EXPECT_EQ(Get(key, "na\xefVE").data, "2");
    EXPECT_EQ(RegDeleteValueA(key, "nA\xcfve"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteValueA(key, "nA\xcfve"), ERROR_FILE_NOT_FOUND);
}

CHILD_PROCESS(UsesJapaneseNames) {
    // The second byte of the first character is a backslash, that of the second a letter.
    const std::string path = "A\\\x95\x5c\x83\x61\\B";
    HKEY key = Create(kMachine, path);
    Set(key, "\x95\x5c", std::string("\x95\x5c", 3), REG_SZ);
    const std::string text = Export(kMachine);
    HKEY other = nullptr;
    const bool folded = RegOpenKeyExA(kMachine, "A\\\x95\x5c\x83\x41", 0, KEY_READ, &other) == ERROR_SUCCESS;
    const bool same = Import(text) == ERROR_SUCCESS && Export(kMachine) == text;
    HKEY half = nullptr;
    const LSTATUS broken = RegCreateKeyExA(kMachine, "B\\x\x95", 0, nullptr, 0, KEY_READ, nullptr, &half, nullptr);
    child.Say(std::to_string(SubKeys(Open(kMachine, "A")).size()) + (folded ? " folded" : " kept") +
              (same ? " same " : " differs ") + std::to_string(broken));
    return 0;
}

TEST(Registry, DoubleByteCharactersAreNotDivided) {
    TestProcess process("UsesJapaneseNames", {}, {{"ORIEL_ANSI_CODE_PAGE", "932"}});
    EXPECT_EQ(process.Hear(), "1 kept same " + std::to_string(ERROR_INVALID_PARAMETER));
}

TEST(Registry, PathsAreReadAsWindowsReadsThem) {
    const std::string longest(255, 'k');
    Create(kMachine, "A\\B\\" + longest);
    std::string deepest = "D";
    for (int level = 1; level < 512; ++level)
        deepest += "\\d";
    const struct {
        std::string path;
        LSTATUS open;
        LSTATUS create;
    } paths[] = {
        {"A\\B\\", ERROR_SUCCESS, ERROR_SUCCESS},
        {"A\\\\B\\\\\\", ERROR_SUCCESS, ERROR_SUCCESS},
        {"", ERROR_SUCCESS, ERROR_SUCCESS},
        {"\\A", ERROR_BAD_PATHNAME, ERROR_BAD_PATHNAME},
        {"A\\C", ERROR_FILE_NOT_FOUND, ERROR_SUCCESS},
        {"A\\B\\" + longest + "k", ERROR_INVALID_PARAMETER, ERROR_INVALID_PARAMETER},
        {"A\\tab\there", ERROR_INVALID_PARAMETER, ERROR_INVALID_PARAMETER},
        {deepest, ERROR_FILE_NOT_FOUND, ERROR_SUCCESS},
        {deepest + "\\d", ERROR_FILE_NOT_FOUND, ERROR_INVALID_PARAMETER},
    };
    for (const auto& row : paths) {
        HKEY key = nullptr;
        EXPECT_EQ(RegOpenKeyExA(kMachine, row.path.c_str(), 0, KEY_READ, &key), row.open) << row.path;
        EXPECT_EQ(key != nullptr, row.open == ERROR_SUCCESS);
        EXPECT_EQ(RegCreateKeyExA(kMachine, row.path.c_str(), 0, nullptr, 0, KEY_READ, nullptr, &key, nullptr),
                  row.create)
            << row.path;
    }
}

TEST(Registry, HandlesHaveOnlyTheRightsTheyWereOpenedWith) {
    Set(Create(kMachine, "K\\Sub"), "v", "1");
    Set(Open(kMachine, "K"), "v", "1");
    enum { kQuery, kSet, kDeleteValue, kEnumKey, kEnumValue, kInfo, kCreate, kCalls };
    const struct {
        REGSAM access;
        LSTATUS open;
        std::string allowed; // one character for each call
    } rows[] = {
        {KEY_READ, ERROR_SUCCESS, "q__kvi_"},
        {KEY_QUERY_VALUE, ERROR_SUCCESS, "q___vi_"},
        {KEY_ENUMERATE_SUB_KEYS, ERROR_SUCCESS, "___k___"},
        {KEY_SET_VALUE, ERROR_SUCCESS, "_sd____"},
        {KEY_CREATE_SUB_KEY, ERROR_SUCCESS, "______c"},
        {KEY_WRITE, ERROR_SUCCESS, "_sd___c"},
        {KEY_ALL_ACCESS, ERROR_SUCCESS, "qsdkvic"},
        {MAXIMUM_ALLOWED, ERROR_SUCCESS, "qsdkvic"},
        {GENERIC_READ, ERROR_SUCCESS, "q__kvi_"},
        {0, ERROR_ACCESS_DENIED, ""},
        {0x0100, ERROR_ACCESS_DENIED, ""},
    };
    for (const auto& row : rows) {
        HKEY key = nullptr;
        ASSERT_EQ(RegOpenKeyExA(kMachine, "K", 0, row.access, &key), row.open) << std::hex << row.access;
        if (row.open != ERROR_SUCCESS) continue;
        char name[16];
        DWORD size = sizeof name;
        HKEY sub = nullptr;
        LSTATUS results[kCalls];
        results[kQuery] = Get(key, "v").status;
        results[kSet] = Set(key, "v", "2");
        results[kDeleteValue] = RegDeleteValueA(key, "v");
        if (results[kDeleteValue] == ERROR_SUCCESS) Set(Open(kMachine, "K"), "v", "1");
        results[kEnumKey] = RegEnumKeyExA(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr);
        size = sizeof name;
        results[kEnumValue] = RegEnumValueA(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr);
        results[kInfo] = RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                          nullptr, nullptr, nullptr);
        results[kCreate] = RegCreateKeyExA(key, "New", 0, nullptr, 0, KEY_READ, nullptr, &sub, nullptr);
        RegDeleteKeyA(key, "New");
        std::string allowed;
        for (int call = 0; call < kCalls; ++call) {
            allowed += results[call] == ERROR_SUCCESS ? "qsdkvic"[call] : '_';
            EXPECT_TRUE(results[call] == ERROR_SUCCESS || results[call] == ERROR_ACCESS_DENIED) << call;
        }
        EXPECT_EQ(allowed, row.allowed) << std::hex << row.access;
        EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    }
}

TEST(Registry, HandlesOutliveNeitherTheirCloseNorTheirKey) {
    HKEY key = Create(kMachine, "K\\Gone");
    HKEY again = Open(key, "");
    EXPECT_NE(key, again);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(key) >> 31, 0U);
    EXPECT_EQ(RegDeleteKeyA(kMachine, "K"), ERROR_ACCESS_DENIED); // it has a subkey
    EXPECT_EQ(RegDeleteKeyA(kMachine, ""), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteKeyA(kMachine, "K\\gone"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteKeyA(kMachine, "K\\gone"), ERROR_FILE_NOT_FOUND);
    for (const bool madeAgain : {false, true}) {
        if (madeAgain) Create(kMachine, "K\\Gone");
        char name[16];
        DWORD size = sizeof name;
        HKEY other = nullptr;
        EXPECT_EQ(Get(key, "v").status, ERROR_KEY_DELETED);
        EXPECT_EQ(Set(key, "v", "1"), ERROR_KEY_DELETED);
        EXPECT_EQ(RegDeleteValueA(key, "v"), ERROR_KEY_DELETED);
        EXPECT_EQ(RegEnumValueA(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_KEY_DELETED);
        EXPECT_EQ(RegEnumKeyExA(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_KEY_DELETED);
        EXPECT_EQ(RegOpenKeyExA(key, nullptr, 0, KEY_READ, &other), ERROR_KEY_DELETED);
        EXPECT_EQ(RegCreateKeyExA(key, "Sub", 0, nullptr, 0, KEY_READ, nullptr, &other, nullptr), ERROR_KEY_DELETED);
        EXPECT_EQ(RegDeleteKeyA(key, "Sub"), ERROR_KEY_DELETED);
        EXPECT_EQ(Export(key), std::to_string(ERROR_KEY_DELETED));
    }
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (HKEY bad :
         {key, HKEY(nullptr), reinterpret_cast<HKEY>(event), reinterpret_cast<HKEY>(uintptr_t{0x80000009})}) {
        EXPECT_EQ(RegCloseKey(bad), ERROR_INVALID_HANDLE);
        EXPECT_EQ(Get(bad, "v").status, ERROR_INVALID_HANDLE);
    }
    EXPECT_EQ(RegCloseKey(kMachine), ERROR_SUCCESS);
    EXPECT_EQ(Get(kMachine, "v").status, ERROR_FILE_NOT_FOUND);
}

TEST(Registry, EnumerationIsInTheOrderOfCreation) {
    HKEY key = Create(kMachine, "Order");
    for (const char* name : {"zebra", "Apple", "mango", "banana"}) {
        Create(key, name);
        Set(key, name, std::string(name).substr(0, 3));
    }
    Set(key, "ZEBRA", "replaced", REG_SZ);
    RegDeleteValueA(key, "mango");
    RegDeleteKeyA(key, "apple");
    Create(key, "apple");
    EXPECT_EQ(ValueNames(key), (Names{"zebra", "Apple", "banana"}));
    EXPECT_EQ(SubKeys(key), (Names{"zebra", "mango", "banana", "apple"}));

    DWORD counts[5] = {};
    FILETIME written{};
    ASSERT_EQ(RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &counts[0], &counts[1], nullptr, &counts[2], &counts[3],
                               &counts[4], nullptr, &written),
              ERROR_SUCCESS);
    EXPECT_EQ(std::vector<DWORD>(counts, counts + 5), (std::vector<DWORD>{4, 6, 3, 6, 8}));
    EXPECT_GT(written.dwHighDateTime, 0x01d00000U); // after 2014

    // Buffers of just the size, and one less.
    char name[7] = "######";
    DWORD nameSize = 6;
    BYTE data[3];
    DWORD dataSize = 3;
    EXPECT_EQ(RegEnumKeyExA(key, 2, name, &nameSize, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
    EXPECT_EQ(RegEnumValueA(key, 2, name, &nameSize, nullptr, nullptr, data, &dataSize), ERROR_MORE_DATA);
    EXPECT_STREQ(name, "######");
    nameSize = 7;
    dataSize = 2;
    EXPECT_EQ(RegEnumValueA(key, 2, name, &nameSize, nullptr, nullptr, data, &dataSize), ERROR_MORE_DATA);
    EXPECT_EQ(dataSize, 3U);
    EXPECT_EQ(RegEnumValueA(key, 2, name, &nameSize, nullptr, nullptr, data, &dataSize), ERROR_SUCCESS);
    EXPECT_EQ(std::string(name, nameSize), "banana");
}

TEST(Registry, ReadingCreatesNothing) {
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(kMachine, "Software", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegDeleteKeyA(kMachine, "Software"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Get(HKEY_CURRENT_USER, "v").status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Export(kMachine), "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE]\r\n\r\n");
    EXPECT_TRUE(SubKeys(Open(kMachine, "", KEY_READ)).empty());
    EXPECT_TRUE(std::filesystem::is_empty(PrivateDirectory() + "/state"));
}

TEST(Registry, FilesHaveTheirModesWhateverTheUmask) {
    SetUmask(0777);
    Create(kMachine, "K");
    Create(HKEY_CURRENT_USER, "K");
    SetUmask(0);
    const std::string registry = PrivateDirectory() + "/state/registry";
    EXPECT_EQ(FileMode(registry), 0755U);
    EXPECT_EQ(FileMode(registry + "/users"), 01777U);
    EXPECT_EQ(FileMode(MachineStore()), 0644U);
    for (const auto& user : std::filesystem::directory_iterator(registry + "/users")) {
        EXPECT_EQ(FileMode(user.path()), 0700U);
        EXPECT_EQ(FileMode(user.path().string() + "/HKCU.sqlite"), 0600U);
    }
}

CHILD_PROCESS(IsAnotherUser) {
    if (!BecomeNobody()) return 1;
    HKEY key = nullptr;
    std::string said = Get(Open(kMachine, "K", KEY_READ), "v").data;
    for (const REGSAM access : {REGSAM{KEY_WRITE}, REGSAM{KEY_ALL_ACCESS}})
        said += " " + std::to_string(RegOpenKeyExA(kMachine, "K", 0, access, &key));
    said += " " + std::to_string(RegCreateKeyExA(kMachine, "L", 0, nullptr, 0, KEY_READ, nullptr, &key, nullptr));
    said += " " + std::to_string(RegDeleteKeyA(kMachine, "K"));
    said += " " + std::to_string(RegOpenKeyExA(kMachine, "K", 0, MAXIMUM_ALLOWED, &key));
    said += " " + std::to_string(Set(key, "v", "2"));
    // The user's own part is another's than root's, and may be written.
    said += " " + std::to_string(Get(HKEY_CURRENT_USER, "v").status);
    said += " " + std::to_string(Set(HKEY_CURRENT_USER, "v", "mine"));
    child.Say(said);
    child.Hear();
    child.Say(Get(Open(kMachine, "K", KEY_READ), "v").data);
    return 0;
}

TEST(Registry, AnotherUserReadsTheMachinesPartAndWritesItsOwn) {
    if (!IsRoot()) GTEST_SKIP() << "only root can become another user";
    Set(Create(kMachine, "K"), "v", "first");
    Set(HKEY_CURRENT_USER, "v", "root's");
    TestProcess other("IsAnotherUser");
    EXPECT_EQ(other.Hear(), "first 5 5 5 5 0 5 2 0");
    EXPECT_EQ(Set(Open(kMachine, "K"), "v", "second"), ERROR_SUCCESS);
    other.Tell("again");
    EXPECT_EQ(other.Hear(), "second");
    EXPECT_EQ(Get(HKEY_CURRENT_USER, "v").data, "root's");
}

// Sets two values to the same number, over and over: with one change at a time, or both in one.
CHILD_PROCESS(WritesPairs) {
    child.Say("writing");
    for (int number = 0;; ++number) {
        const std::string text = std::to_string(number % 10);
        const LSTATUS status = Import("REGEDIT4\n[HKLM\\Pair]\n\"a\"=dword:" + text + "\n\"b\"=dword:" + text + "\n");
        if (status != ERROR_SUCCESS) return 1;
        if (Set(Create(kMachine, "Own\\" + child.arguments[0]), text, text) != ERROR_SUCCESS) return 2;
    }
}

TEST(Registry, ChangesAreWholeWhoeverIsKilled) {
    const int rounds = Rounds(60, 5000);
    std::mt19937_64 random(Seed());
    TestProcess steady("WritesPairs", {"steady"});
    steady.Hear();
    for (int round = 0; round < rounds; ++round) {
        TestProcess victim("WritesPairs", {"victim"});
        victim.Hear();
        const double until = NowMs() + static_cast<double>(random() % 10);
        do {
            const std::string text = Export(Create(kMachine, "Pair", KEY_READ));
            const size_t a = text.find("\"a\"=dword:");
            const size_t b = text.find("\"b\"=dword:");
            if (a == std::string::npos) continue;
            ASSERT_EQ(text.substr(a + 4, 14), text.substr(b + 4, 14)) << text;
        } while (NowMs() < until);
        victim.Kill();
    }
    EXPECT_TRUE(steady.Running()); // no change of its own failed meanwhile
    EXPECT_FALSE(ValueNames(Open(kMachine, "Own\\steady")).empty());
}

CHILD_PROCESS(LocksTheStore) {
    child.Say(LockWholeFile(child.arguments[0]) ? "locked" : "failed");
    child.Hear();
    return 0;
}

TEST(Registry, AHeldStoreIsBusyNotWaitedForEndlessly) {
    HKEY key = Create(kMachine, "K");
    TestProcess holder("LocksTheStore", {MachineStore()});
    ASSERT_EQ(holder.Hear(), "locked");
    EXPECT_EQ(Set(key, "v", "1"), ERROR_BUSY);
    holder.Kill();
    EXPECT_EQ(Set(key, "v", "1"), ERROR_SUCCESS);
}

TEST(Registry, AForkChildGoesOnByItself) {
    Set(Create(kMachine, "K"), "v", "1");
    EXPECT_EQ(InForkChild([] {
                  HKEY key = Open(kMachine, "K");
                  return Get(key, "v").data == "1" && Set(key, "v", "2") == ERROR_SUCCESS ? 7 : 1;
              }),
              7);
    EXPECT_EQ(Get(Open(kMachine, "K"), "v").data, "2");
}

TEST(Registry, ThreadsShareIt) {
    constexpr int kThreads = 4;
    constexpr int kValues = 50;
    static volatile LONG failures = 0;
    HANDLE threads[kThreads];
    for (int at = 0; at < kThreads; ++at)
        threads[at] = CreateThread(
            nullptr, 0,
            [](LPVOID name) -> DWORD {
                for (int number = 0; number < kValues; ++number) {
                    const std::string text = std::to_string(number);
                    HKEY key = Create(kMachine, "Threads\\" + std::to_string(reinterpret_cast<uintptr_t>(name)));
                    if (Set(key, text, text) != ERROR_SUCCESS || Get(key, text).data != text || RegCloseKey(key) != 0)
                        InterlockedIncrement(&failures);
                }
                return 0;
            },
            reinterpret_cast<LPVOID>(static_cast<uintptr_t>(at)), 0, nullptr);
    for (HANDLE thread : threads)
        ASSERT_EQ(WaitForSingleObject(thread, 60000), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(SubKeys(Open(kMachine, "Threads")).size(), size_t{kThreads});
}

TEST(Registry, DamageIsToldAndNeverTakenForData) {
    for (int number = 0; number < 60; ++number) {
        HKEY key = Create(kMachine, "Software\\Key " + std::to_string(number));
        Set(key, "value", std::string(static_cast<size_t>(number) * 100, static_cast<char>('a' + number % 26)));
    }
    const std::string text = Export(kMachine);
    const std::string sound = ReadWholeFile(MachineStore());
    ASSERT_GT(sound.size(), 100000U);
    std::mt19937_64 random(Seed());
    int told = 0;
    const int rounds = Rounds(600, 100000);
    for (int round = 0; round < rounds; ++round) {
        std::string damaged = sound;
        if (round % 10 == 0) damaged.resize(1 + random() % (sound.size() - 1));
        // Half of them in the first page, which says what the others are.
        const size_t reach = round % 2 == 0 ? damaged.size() : std::min<size_t>(4096, damaged.size());
        for (uint64_t flips = 1 + random() % 2; flips > 0; --flips)
            damaged[random() % reach] ^= static_cast<char>(1 + random() % 255);
        ReplaceFile(MachineStore(), damaged);
        const std::string result = Export(kMachine);
        ASSERT_TRUE(result == text || result == std::to_string(ERROR_BADDB)) << "round " << round << ": " << result;
        told += result != text;
        HKEY key = nullptr;
        if (RegOpenKeyExA(kMachine, "Software\\Key 59", 0, KEY_READ, &key) == ERROR_SUCCESS) {
            const Value value = Get(key, "value");
            ASSERT_TRUE(value.status == ERROR_BADDB || value.data == std::string(5900, 'h')) << "round " << round;
            RegCloseKey(key);
        }
        const LSTATUS written = Set(kMachine, "new", "1");
        ASSERT_TRUE(written == ERROR_SUCCESS || written == ERROR_BADDB) << "round " << round << ": " << written;
    }
    EXPECT_GT(told, rounds / 2);
    ReplaceFile(MachineStore(), sound);
    EXPECT_EQ(Export(kMachine), text);
}

TEST(Registry, WhatIsNoStoreIsRefused) {
    Set(Create(kMachine, "K"), "v", "1");
    const std::string elsewhere = PrivateDirectory() + "/elsewhere";
    ReplaceFile(elsewhere, ReadWholeFile(MachineStore()));
    for (const Plant plant : {Plant::kLink, Plant::kPipe, Plant::kDirectory}) {
        ASSERT_TRUE(PlantInPlace(MachineStore(), plant, elsewhere));
        EXPECT_EQ(Get(kMachine, "v").status, ERROR_BADDB) << static_cast<int>(plant);
        EXPECT_EQ(Set(kMachine, "v", "2"), ERROR_BADDB) << static_cast<int>(plant);
    }
    ReplaceFile(MachineStore(), "text, and no database at all");
    EXPECT_EQ(Set(kMachine, "v", "2"), ERROR_BADDB);
    EXPECT_EQ(ReadWholeFile(MachineStore()), "text, and no database at all");
    // Gone altogether: an empty registry again.
    std::filesystem::remove(MachineStore());
    EXPECT_EQ(Get(kMachine, "v").status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Set(kMachine, "v", "3"), ERROR_SUCCESS);
}
