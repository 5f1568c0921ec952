// The registry: values and keys as Win32 has them, between processes and users, and over a damaged store.
#include "base/timings.h"
#include "campaign.h"
#include "memory_kit.h"
#include "posix_kit.h"
#include "private_machine.h"
#include "registry_kit.h"
#include "win32_kit.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

const HKEY kMachine = HKEY_LOCAL_MACHINE;

std::string MachineStore() {
    return PrivateDirectory() + "/state/registry/HKLM.sqlite";
}

// Which calls a handle allows, a letter for each; "x" for one that fails otherwise than by access denied.
std::string AllowedCalls(HKEY key) {
    const LSTATUS results[] = {
        GetValue(key, "v").status,
        SetValue(key, "v", "2"),
        RegDeleteValueA(key, "gone"),
        NameAt(key, 0, false),
        NameAt(key, 0, true),
        RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr),
        TryCreateKey(key, "New"),
    };
    RegDeleteKeyA(key, "New");
    std::string allowed;
    for (size_t call = 0; call < std::size(results); ++call)
        allowed += results[call] == ERROR_SUCCESS || results[call] == ERROR_FILE_NOT_FOUND ? "qsdkvic"[call]
                   : results[call] == ERROR_ACCESS_DENIED                                  ? '_'
                                                                                           : 'x';
    return allowed;
}

} // namespace

TEST(Registry, ValuesKeepTypeAndExactBytes) {
    HKEY key = CreateKey(kMachine, "Software\\Values");
    const struct {
        const char* name;
        DWORD type;
        std::string data;
    } values[] = {
        {"", REG_SZ, std::string("default\0", 8)},
        {"multi", REG_MULTI_SZ, std::string("a\0b\0\0", 5)},
        {"short word", REG_DWORD, "\1"},
        {"none", REG_NONE, ""},
        {"own type", 0xfffffff0, std::string("\0\xff\0", 3)},
        {"largest", REG_BINARY, std::string(1 << 20, 'x')},
    };
    for (const auto& value : values)
        ASSERT_EQ(SetValue(key, value.name, value.data, value.type), ERROR_SUCCESS) << value.name;
    for (const auto& value : values) {
        EXPECT_EQ(GetValue(key, value.name), (Value{ERROR_SUCCESS, value.type, value.data})) << value.name;
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
    EXPECT_EQ(GetValue(key, "absent").status, ERROR_FILE_NOT_FOUND);
    if (OnTheLayer()) {
        EXPECT_EQ(SetValue(key, "too large", std::string((1 << 20) + 1, 'x')), ERROR_INVALID_PARAMETER);
    }
    EXPECT_EQ(SetValue(key, std::string(16383, 'n'), "longest"), ERROR_SUCCESS);
    EXPECT_EQ(SetValue(key, std::string(16384, 'n'), "too long"), ERROR_INVALID_PARAMETER);
}

TEST(Registry, NamesCompareWithoutCaseAndKeepTheirSpelling) {
    HKEY key = CreateKey(kMachine, "SoftWare\\Tavik\\Caf\xe9");
    EXPECT_EQ(SubKeys(OpenKey(kMachine, "SOFTWARE\\TAVIK")), Names{"Caf\xe9"});
    OpenKey(kMachine, "software\\tavik\\CAF\xc9"); // E with an acute accent, upper case
    ASSERT_EQ(SetValue(key, "Na\xefve", "1"), ERROR_SUCCESS);
    ASSERT_EQ(SetValue(key, "NA\xcfVE", "2"), ERROR_SUCCESS);
    EXPECT_EQ(ValueNames(key), Names{"Na\xefve"});
    EXPECT_EQ(GetValue(key, "na\xefVE").data, "2");
    EXPECT_EQ(RegDeleteValueA(key, "nA\xcfve"), ERROR_SUCCESS);
}

TEST(Registry, PathsAreReadAsWindowsReadsThem) {
    const std::string longest(255, 'k');
    CreateKey(kMachine, "A\\B\\" + longest);
    std::string deepest = "D";
    for (int level = 1; level < 512; ++level)
        deepest += "\\d";
    const struct {
        std::string path;
        LSTATUS open;
        LSTATUS create;
        bool onTheLayer = false;
    } paths[] = {
        {"A\\B\\", ERROR_SUCCESS, ERROR_SUCCESS},
        {"", ERROR_SUCCESS, ERROR_SUCCESS},
        {"\\A", ERROR_BAD_PATHNAME, ERROR_BAD_PATHNAME},
        {"A\\C", ERROR_FILE_NOT_FOUND, ERROR_SUCCESS},
        {"A\\B\\" + longest + "k", ERROR_INVALID_PARAMETER, ERROR_INVALID_PARAMETER},
        {"A\\tab\there", ERROR_INVALID_PARAMETER, ERROR_INVALID_PARAMETER, true},
        {deepest, ERROR_FILE_NOT_FOUND, ERROR_SUCCESS},
        {deepest + "\\d", ERROR_FILE_NOT_FOUND, ERROR_INVALID_PARAMETER},
    };
    for (const auto& row : paths) {
        if (row.onTheLayer && !OnTheLayer()) continue;
        HKEY key = nullptr;
        EXPECT_EQ(RegOpenKeyExA(kMachine, row.path.c_str(), 0, KEY_READ, &key), row.open) << row.path;
        EXPECT_EQ(key != nullptr, row.open == ERROR_SUCCESS);
        EXPECT_EQ(TryCreateKey(kMachine, row.path), row.create) << row.path;
    }
}

TEST(Registry, HandlesHaveOnlyTheRightsTheyWereOpenedWith) {
    CreateKey(kMachine, "K\\Sub");
    SetValue(OpenKey(kMachine, "K"), "v", "1");
    const struct {
        REGSAM access;
        const char* allowed; // null: none such
    } rows[] = {
        {KEY_READ, "q__kvi_"},       {KEY_QUERY_VALUE, "q___vi_"}, {KEY_WRITE, "_sd___c"},
        {KEY_ALL_ACCESS, "qsdkvic"}, {MAXIMUM_ALLOWED, "qsdkvic"}, {0, nullptr},
        {0x0100, nullptr},
    };
    for (const auto& row : rows) {
        HKEY key = nullptr;
        if (row.allowed == nullptr && !OnTheLayer()) continue;
        const LSTATUS opened = RegOpenKeyExA(kMachine, "K", 0, row.access, &key);
        ASSERT_EQ(opened, row.allowed != nullptr ? ERROR_SUCCESS : ERROR_ACCESS_DENIED) << std::hex << row.access;
        if (row.allowed != nullptr) {
            // Windows asks the key, not the handle, whether it may be looked at and have subkeys.
            const size_t asked = OnTheLayer() ? std::string::npos : 5;
            EXPECT_EQ(AllowedCalls(key).substr(0, asked), std::string(row.allowed).substr(0, asked))
                << std::hex << row.access;
        }
    }
}

TEST(Registry, HandlesOutliveNeitherTheirCloseNorTheirKey) {
    HKEY key = CreateKey(kMachine, "K\\Gone");
    HKEY again = OpenKey(key, "");
    EXPECT_NE(key, again);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(key) >> 31, 0U);
    EXPECT_EQ(RegDeleteKeyA(kMachine, "K"), ERROR_ACCESS_DENIED); // it has a subkey
    EXPECT_EQ(RegDeleteKeyA(kMachine, ""), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteKeyA(kMachine, "K\\gone"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteKeyA(kMachine, "K\\gone"), ERROR_FILE_NOT_FOUND);
    for (const bool madeAgain : {false, true}) {
        if (madeAgain) CreateKey(kMachine, "K\\Gone");
        HKEY other = nullptr;
        for (const LSTATUS status :
             {GetValue(key, "v").status, SetValue(key, "v", "1"), RegDeleteValueA(key, "v"), NameAt(key, 0, true),
              NameAt(key, 0, false), RegOpenKeyExA(key, nullptr, 0, KEY_READ, &other), TryCreateKey(key, "Sub"),
              RegDeleteKeyA(key, "Sub")})
            EXPECT_EQ(status, ERROR_KEY_DELETED);
        EXPECT_EQ(Export(key), std::to_string(ERROR_KEY_DELETED));
    }
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (HKEY bad :
         {key, HKEY(nullptr), reinterpret_cast<HKEY>(event), reinterpret_cast<HKEY>(uintptr_t{0x80000009})}) {
        EXPECT_EQ(RegCloseKey(bad), ERROR_INVALID_HANDLE);
        EXPECT_EQ(GetValue(bad, "v").status, ERROR_INVALID_HANDLE);
    }
    EXPECT_EQ(RegCloseKey(kMachine), ERROR_SUCCESS);
    EXPECT_EQ(GetValue(kMachine, "v").status, ERROR_FILE_NOT_FOUND);
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
    CreateKey(key, "apple");
    if (OnTheLayer()) { // elsewhere in any order
        EXPECT_EQ(ValueNames(key), (Names{"zebra", "Apple", "banana"}));
        EXPECT_EQ(SubKeys(key), (Names{"zebra", "mango", "banana", "apple"}));
    }

    DWORD counts[5] = {};
    FILETIME written{};
    RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &counts[0], &counts[1], nullptr, &counts[2], &counts[3],
                     &counts[4], nullptr, &written);
    EXPECT_EQ(std::vector<DWORD>(counts, counts + 4), (std::vector<DWORD>{4, 6, 3, 6}));
    EXPECT_TRUE(counts[4] == 8 || (!OnTheLayer() && counts[4] > 8)); // Windows counts text as it keeps it
    EXPECT_GT(written.dwHighDateTime, 0x01d00000U);                  // after 2014
    // Buffers of just the size, and one less.
    char name[7] = "######";
    BYTE data[3];
    const Names names = ValueNames(key);
    const auto banana = static_cast<DWORD>(std::find(names.begin(), names.end(), "banana") - names.begin());
    const auto enumerate = [&](DWORD nameSize, DWORD dataSize) {
        return RegEnumValueA(key, banana, name, &nameSize, nullptr, nullptr, data, &dataSize);
    };
    EXPECT_EQ(enumerate(6, 3), ERROR_MORE_DATA);
    EXPECT_TRUE(!OnTheLayer() || std::strcmp(name, "######") == 0);
    EXPECT_EQ(enumerate(7, 2), ERROR_MORE_DATA);
    EXPECT_EQ(enumerate(7, 3), ERROR_SUCCESS);
    EXPECT_STREQ(name, "banana");
}

TEST(Registry, ReadingCreatesNothing) {
    NeedsTheLayer("a machine with nothing in it");
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(kMachine, "Software", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegDeleteKeyA(kMachine, "Software"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetValue(HKEY_CURRENT_USER, "v").status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Export(kMachine), "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE]\r\n\r\n");
    EXPECT_TRUE(SubKeys(OpenKey(kMachine, "", KEY_READ)).empty());
    EXPECT_TRUE(std::filesystem::is_empty(PrivateDirectory() + "/state"));
}

CHILD_PROCESS(IsAnotherUser) {
    if (!BecomeNobody()) return 1;
    HKEY key = nullptr;
    std::string said = GetValue(OpenKey(kMachine, "K", KEY_READ), "v").data;
    for (const LSTATUS status :
         {RegOpenKeyExA(kMachine, "K", 0, KEY_WRITE, &key), RegOpenKeyExA(kMachine, "K", 0, KEY_ALL_ACCESS, &key),
          TryCreateKey(kMachine, "L"), RegDeleteKeyA(kMachine, "K"),
          RegOpenKeyExA(kMachine, "K", 0, MAXIMUM_ALLOWED, &key), SetValue(key, "v", "2"),
          // The user's own part is another's than root's, and may be written.
          GetValue(HKEY_CURRENT_USER, "v").status, SetValue(HKEY_CURRENT_USER, "v", "mine")})
        said += " " + std::to_string(status);
    const std::ifstream roots(PrivateDirectory() + "/state/registry/users/0/HKCU.sqlite");
    child.Say(said + (roots.is_open() ? " reads root's" : ""));
    child.Hear();
    child.Say(GetValue(OpenKey(kMachine, "K", KEY_READ), "v").data);
    return 0;
}

TEST_AS_ROOT(Registry, AnotherUserReadsTheMachinesPartAndWritesItsOwn) {
    SetUmask(0777); // must not matter
    SetValue(CreateKey(kMachine, "K"), "v", "first");
    SetValue(HKEY_CURRENT_USER, "v", "root's");
    ASSERT_TRUE(std::filesystem::exists(PrivateDirectory() + "/state/registry/users/0/HKCU.sqlite"));
    TestProcess other("IsAnotherUser");
    EXPECT_EQ(other.Hear(), "first 5 5 5 5 0 5 2 0");
    EXPECT_EQ(SetValue(OpenKey(kMachine, "K"), "v", "second"), ERROR_SUCCESS);
    other.Tell("again");
    EXPECT_EQ(other.Hear(), "second");
    EXPECT_EQ(GetValue(HKEY_CURRENT_USER, "v").data, "root's");
}

// Sets two values to the same number, over and over, both in one change, from two threads.
CHILD_PROCESS(WritesPairs) {
    const auto write = [&]() -> DWORD {
        for (int number = 0;; ++number) {
            const std::string text = std::to_string(number % 10);
            if (Import("REGEDIT4\n[HKLM\\Pair]\n\"a\"=dword:" + text + "\n\"b\"=dword:" + text + "\n") != ERROR_SUCCESS)
                return 1;
            HKEY own = CreateKey(kMachine, "Own\\" + child.arguments[0]);
            if (SetValue(own, text, text) != ERROR_SUCCESS || GetValue(own, text).data != text) return 2;
            RegCloseKey(own);
        }
    };
    child.Say("writing");
    const HANDLE threads[] = {StartThread(write), StartThread(write)};
    return static_cast<int>(1 + WaitForMultipleObjects(2, threads, FALSE, INFINITE));
}

TEST(RegistryCampaign, ChangesAreWholeWhoeverIsKilled) {
    const int rounds = Rounds(40, 2000);
    std::mt19937_64 random(Seed());
    TestProcess steady("WritesPairs", {"steady"});
    steady.Hear();
    for (int round = 0; round < rounds; ++round) {
        TestProcess victim("WritesPairs", {"victim"});
        victim.Hear();
        const double until = NowMs() + static_cast<double>(random() % 10);
        do {
            const std::string text = Export(CreateKey(kMachine, "Pair"));
            const size_t a = text.find("\"a\"=dword:");
            const size_t b = text.find("\"b\"=dword:");
            if (a == std::string::npos) continue;
            ASSERT_EQ(text.substr(a + 4, 14), text.substr(b + 4, 14)) << text;
        } while (NowMs() < until);
        victim.Kill();
    }
    EXPECT_TRUE(steady.Running()); // no change of its own failed meanwhile
    EXPECT_FALSE(ValueNames(OpenKey(kMachine, "Own\\steady")).empty());
}

CHILD_PROCESS(LocksAFile) {
    child.Say(LockWholeFile(child.arguments[0]) ? "locked" : "failed");
    child.Hear();
    return 0;
}

TEST(Registry, AHeldStoreIsBusyNotWaitedForEndlessly) {
    HKEY key = CreateKey(kMachine, "K");
    TestProcess holder("LocksAFile", {MachineStore()});
    ASSERT_EQ(holder.Hear(), "locked");
    oriel::g_timings.registryBusy = 100;
    const double begin = NowMs();
    EXPECT_EQ(SetValue(key, "v", "1"), ERROR_BUSY);
    EXPECT_GE(NowMs() - begin, 99);
    EXPECT_LT(NowMs() - begin, 4000);
    holder.Kill();
    EXPECT_EQ(SetValue(key, "v", "1"), ERROR_SUCCESS);
    EXPECT_EQ(RunForked([] { // a fork child goes on by itself
                  HKEY own = OpenKey(kMachine, "K");
                  return GetValue(own, "v").data == "1" && SetValue(own, "v", "2") == ERROR_SUCCESS ? 7 : 1;
              }),
              7);
    EXPECT_EQ(GetValue(OpenKey(kMachine, "K"), "v").data, "2");
}

TEST(RegistryCampaign, DamageIsToldAndNeverTakenForData) {
    for (int number = 0; number < 60; ++number)
        SetValue(CreateKey(kMachine, "Software\\Key " + std::to_string(number)), "value",
                 std::string(static_cast<size_t>(number) * 100, static_cast<char>('a' + number % 26)));
    const std::string text = Export(kMachine);
    const std::string sound = ReadWholeFile(MachineStore());
    ASSERT_GT(sound.size(), 100000U);
    std::mt19937_64 random(Seed());
    int told = 0;
    const int rounds = Rounds(300, 20000);
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
            const Value value = GetValue(key, "value");
            ASSERT_TRUE(value.status == ERROR_BADDB || value.data == std::string(5900, 'h')) << "round " << round;
            RegCloseKey(key);
        }
        const LSTATUS written = SetValue(kMachine, "new", "1");
        ASSERT_TRUE(written == ERROR_SUCCESS || written == ERROR_BADDB) << "round " << round << ": " << written;
    }
    EXPECT_GT(told, rounds / 2);
    // A sector in the middle of a value that the disk has lost: SQLite's own check sees nothing wrong.
    std::string lost = sound;
    const size_t sector = (lost.find(std::string(1024, 'h')) + 511) / 512 * 512;
    lost.replace(sector, 512, 512, '\0');
    ReplaceFile(MachineStore(), lost);
    EXPECT_EQ(Export(kMachine), std::to_string(ERROR_BADDB));
    ReplaceFile(MachineStore(), sound);
    EXPECT_EQ(Export(kMachine), text);
}

TEST(Registry, WhatIsNoStoreIsRefused) {
    SetValue(CreateKey(kMachine, "K"), "v", "1");
    const std::string elsewhere = PrivateDirectory() + "/elsewhere";
    ReplaceFile(elsewhere, ReadWholeFile(MachineStore()));
    for (const Plant plant : {Plant::kLink, Plant::kPipe, Plant::kDirectory}) {
        ASSERT_TRUE(PlantInPlace(MachineStore(), plant, elsewhere));
        EXPECT_EQ(GetValue(kMachine, "v").status, ERROR_BADDB) << static_cast<int>(plant);
        EXPECT_EQ(SetValue(kMachine, "v", "2"), ERROR_BADDB) << static_cast<int>(plant);
    }
    ReplaceFile(MachineStore(), "text, and no database at all");
    EXPECT_EQ(SetValue(kMachine, "v", "2"), ERROR_BADDB);
    EXPECT_EQ(ReadWholeFile(MachineStore()), "text, and no database at all");
    // Gone altogether: an empty registry again.
    std::filesystem::remove(MachineStore());
    EXPECT_EQ(GetValue(kMachine, "v").status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(SetValue(kMachine, "v", "3"), ERROR_SUCCESS);
}
