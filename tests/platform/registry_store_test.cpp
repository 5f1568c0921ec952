// The registry between processes and users, over a damaged store, and as text.
#include "base/timings.h"
#include "campaign.h"
#include "kit.h"
#include "private_machine.h"

#include <filesystem>
#include <fstream>
#include <oriel_directories.h>
#include <sys/stat.h>
#include <unistd.h>
#include <winreg_text.h>

namespace {

namespace fs = std::filesystem;

const HKEY kMachine = HKEY_LOCAL_MACHINE;

std::string MachineStore(const char* suffix = ".sqlite") {
    return PrivateDirectory() + "/state/registry/HKLM" + suffix;
}

} // namespace

TEST(RegistryStore, ReadingCreatesNothing) {
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(kMachine, "Software", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegDeleteKeyA(kMachine, "Software"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetValue(HKEY_CURRENT_USER, "v").status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Export(kMachine), "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE]\r\n\r\n");
    EXPECT_TRUE(NamesIn(OpenKey(kMachine, "", KEY_READ), kSubKeys).empty());
    EXPECT_TRUE(fs::is_empty(PrivateDirectory() + "/state"));
}

CHILD_PROCESS(IsAnotherUser) {
    if (!BecomeNobody()) return 1;
    HKEY key = nullptr;
    std::string said = GetValue(OpenKey(kMachine, "K", KEY_READ), "v").data;
    for (const LSTATUS status :
         {RegOpenKeyExA(kMachine, "K", 0, KEY_WRITE, &key), RegOpenKeyExA(kMachine, "K", 0, KEY_ALL_ACCESS, &key),
          TryCreateKey(kMachine, "L", &key), RegDeleteKeyA(kMachine, "K"),
          RegOpenKeyExA(kMachine, "K", 0, MAXIMUM_ALLOWED, &key), SetValue(key, "v", "2"),
          // The user's own part is another's than root's, and may be written.
          GetValue(HKEY_CURRENT_USER, "v").status, SetValue(HKEY_CURRENT_USER, "v", "mine")})
        said += " " + std::to_string(status);
    child.Say(said + ReadWholeFile(PrivateDirectory() + "/state/registry/users/0/HKCU.sqlite"));
    child.Hear();
    child.Say(GetValue(OpenKey(kMachine, "K", KEY_READ), "v").data);
    return 0;
}

CHILD_PROCESS(ReadsTheMachinesPart) {
    oriel::g_timings.registryBusy = 50;
    if (!BecomeNobody()) return 1;
    do {
        HKEY key = nullptr;
        const LSTATUS status = RegOpenKeyExA(kMachine, "K", 0, KEY_READ, &key);
        child.Say(std::to_string(status) + " " + GetValue(key, "v").data);
        RegCloseKey(key);
    } while (!child.Hear().empty());
    return 0;
}

TEST_AS_ROOT(RegistryStore, AnotherUserReadsTheMachinesPartAndWritesItsOwn) {
    umask(0777); // must not matter
    SetValue(CreateKey(kMachine, "K"), "v", "first");
    SetValue(HKEY_CURRENT_USER, "v", "root's");
    ASSERT_NE(ReadWholeFile(PrivateDirectory() + "/state/registry/users/0/HKCU.sqlite"), "");
    TestProcess other("IsAnotherUser");
    EXPECT_EQ(other.Hear(), "first 5 5 5 5 0 5 2 0");
    EXPECT_EQ(SetValue(OpenKey(kMachine, "K"), "v", "second"), ERROR_SUCCESS);
    other.Tell("again");
    EXPECT_EQ(other.Hear(), "second");
    EXPECT_EQ(GetValue(HKEY_CURRENT_USER, "v").data, "root's");
}

// Sets two values, each of many pages, to the same digits, over and over, both in one change, from two threads.
CHILD_PROCESS(WritesPairs) {
    const auto write = [&]() -> DWORD {
        for (int number = 0;; ++number) {
            const std::string text = std::to_string(number % 10), digits = std::string(40000, text[0]);
            if (Import("REGEDIT4\n[HKLM\\Pair]\n\"a\"=\"" + digits + "\"\n\"b\"=\"" + digits + "\"\n")) return 1;
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
    TestProcess steady("WritesPairs", {"steady"});
    steady.Hear();
    HKEY pair = CreateKey(kMachine, "Pair");
    ASSERT_TRUE(WaitUntil([&] { return GetValue(pair, "a").status == ERROR_SUCCESS; }));
    int changes = 0;
    KillStorm("WritesPairs", "victim", Rounds(25, 2000), [&, last = std::string()]() mutable {
        for (int look = 0; look < 10; ++look) {
            const std::string text = Export(pair), value = GetValue(pair, "a").data;
            ASSERT_TRUE(value == std::string(40000, value[0]) + '\0') << value.size();
            const size_t a = text.find("\"a\"=") + 4, b = text.find("\"b\"=") + 4;
            ASSERT_TRUE(text.size() > 80000 && text.substr(a, 40002) == text.substr(b, 40002)) << text.size();
            changes += std::exchange(last, value) != value;
        }
    });
    EXPECT_GT(changes, 50);
    EXPECT_TRUE(steady.Running()); // no change of its own failed meanwhile
    EXPECT_FALSE(NamesIn(OpenKey(kMachine, "Own\\steady"), kValues).empty());
}

TEST(RegistryStore, ThatIsHeldIsBusyNotWaitedForEndlessly) {
    HKEY key = CreateKey(kMachine, "K");
    TestProcess holder = Ready("HoldsAFile", {MachineStore(".lock")});
    oriel::g_timings.registryBusy = 100;
    const double begin = NowMs();
    EXPECT_EQ(SetValue(key, "v", "1"), ERROR_BUSY);
    EXPECT_GE(NowMs() - begin, 99);
    EXPECT_LT(NowMs() - begin, 4000);
    EXPECT_EQ(GetValue(key, "v").status, ERROR_FILE_NOT_FOUND) << "who reads needs no lock";
    holder.Kill();
    EXPECT_EQ(SetValue(key, "v", "1"), ERROR_SUCCESS);
}

CHILD_PROCESS(LocksAllThatItMayRead) {
    if (!BecomeNobody()) return 1;
    std::string said;
    for (const auto& entry : fs::recursive_directory_iterator(PrivateDirectory() + "/state"))
        if (entry.is_regular_file() && LockWholeFile(entry.path(), true))
            said += entry.path().filename().string() + " ";
    child.Say(said.find("HKLM.sqlite") != said.npos && said.find(".lock") == said.npos ? "ready" : said);
    child.Hear();
    return 0;
}

TEST_AS_ROOT(RegistryStore, NothingThatAReaderDoesHoldsUpAWriter) {
    HKEY key = CreateKey(kMachine, "K");
    TestProcess reader = Ready("LocksAllThatItMayRead");
    for (const std::string text : {"1", "2"}) {
        const double begin = NowMs();
        EXPECT_EQ(SetValue(key, "v", text), ERROR_SUCCESS);
        EXPECT_EQ(GetValue(key, "v").data, text);
        EXPECT_LT(NowMs() - begin, 2000); // far from the limit for a lock
    }
}

// Takes root's name, and puts into the folders for everybody what nobody else can remove; its own directory is one of
// two.
CHILD_PROCESS(LeavesLitter) {
    if (!BecomeNobody()) return 1;
    const std::string users = PrivateDirectory() + "/state/registry/users/";
    for (const std::string& folder :
         {users + "0/full", users + "65534-", users + "65534-0123456789abcdef", users + "65534-1123456789abcdef",
          PrivateDirectory() + "/state/jobs/17/full", PrivateDirectory() + "/state/jobs/x/full",
          PrivateDirectory() + "/run/windows/12345678.queue/full", PrivateDirectory() + "/run/windows/x/full"})
        fs::create_directories(folder);
    std::ofstream(users + "file") << "x";
    std::ofstream(PrivateDirectory() + "/run/windows/12345678.window") << "x";
    fs::create_symlink(MachineStore(), users + "1");
    // Deeper than a process has descriptors, and than a path is long.
    fs::current_path(users + "0/full");
    for (int level = 0; level < 1500; ++level) {
        std::ofstream("file") << "x";
        if (mkdir("a directory", 0700) != 0 || chdir("a directory") != 0) return 2;
    }
    return 0;
}

CHILD_PROCESS(ReadsItsOwnPart) {
    child.Say(GetValue(HKEY_CURRENT_USER, "v").data);
    return 0;
}

TEST_AS_ROOT(RegistryStore, AUserHasItsPartThoughAnotherTookItsDirectory) {
    const fs::path state = PrivateDirectory() + "/state", users = state / "registry/users";
    const fs::path shared[] = {state / "jobs", PrivateDirectory() + "/run/windows"};
    CreateKey(kMachine, "K");
    for (const fs::path& folder : shared) {
        fs::create_directories(folder);
        chmod(folder.c_str(), 01777);
    }
    ASSERT_EQ(TestProcess("LeavesLitter").Wait(), 0);
    EXPECT_EQ(GetValue(HKEY_CURRENT_USER, "v").status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(SetValue(HKEY_CURRENT_USER, "v", "mine"), ERROR_SUCCESS);
    EXPECT_EQ(TestProcess("ReadsItsOwnPart").Hear(), "mine");
    const auto count = [](const fs::path& folder) { return std::distance(fs::directory_iterator(folder), {}); };
    EXPECT_TRUE(WaitUntil(
        [&] {
            OrielTidyDirectories();
            return count(users) == 2 && count(shared[0]) == 0 && count(shared[1]) == 0;
        },
        10000));
    EXPECT_TRUE(fs::exists(users / "65534-0123456789abcdef")) << "the one that the registry uses";
    EXPECT_EQ(TestProcess("ReadsItsOwnPart").Hear(), "mine");
    EXPECT_EQ(SetValue(HKEY_CURRENT_USER, "v", "still mine"), ERROR_SUCCESS);
    EXPECT_EQ(count(users), 2) << "nobody moves when the name is free again";
}

// A number that is odd says that a change is being written; here its writer is gone.
TEST_AS_ROOT(RegistryStore, AChangeWithoutAnEndIsPutRightByWhoMayWrite) {
    SetValue(CreateKey(kMachine, "K"), "v", "first");
    TestProcess other("ReadsTheMachinesPart");
    EXPECT_EQ(other.Hear(), "0 first");
    std::string record = ReadWholeFile(MachineStore(".seq"));
    ASSERT_EQ(record.size(), 40U);
    record[24] ^= 1;
    record[32] ^= 1;
    // Told by who has it open, who opens it now, and again after a restart of the system.
    ReplaceFile(MachineStore(".seq"), record);
    EXPECT_EQ(other.Ask("again"), "0 first") << "what was read before is still right";
    EXPECT_EQ(TestProcess("ReadsTheMachinesPart").Hear(), std::to_string(ERROR_BUSY) + " ");
    EXPECT_EQ(GetValue(OpenKey(kMachine, "K"), "v").data, "first");
    SetValue(OpenKey(kMachine, "K"), "v", "second");
    EXPECT_EQ(other.Ask("again"), "0 second");
    EXPECT_EQ(TestProcess("ReadsTheMachinesPart").Hear(), "0 second");
}

TEST(RegistryCampaign, DamageIsToldAndNeverTakenForData) {
    for (int number = 0; number < 60; ++number)
        SetValue(CreateKey(kMachine, "Software\\Key " + std::to_string(number)), "value",
                 std::string(static_cast<size_t>(number) * 100, static_cast<char>('a' + number % 26)));
    const std::string text = Export(kMachine), sound = ReadWholeFile(MachineStore());
    ASSERT_GT(sound.size(), 100000U);
    std::mt19937_64 random(Seed());
    int told = 0;
    const int rounds = Rounds(300, 20000);
    for (int round = 0; round < rounds; ++round) {
        // Half of them in the first page, which says what the others are.
        const size_t whole = round % 10 == 0 ? 1 + random() % (sound.size() - 1) : sound.size();
        ReplaceFile(MachineStore(), Damaged(sound.substr(0, whole), random, round % 2 == 0 ? whole : 4096));
        const std::string result = Export(kMachine);
        ASSERT_TRUE(result == text || result == std::to_string(ERROR_BADDB)) << "round " << round << ": " << result;
        told += result != text;
        HKEY key = nullptr;
        if (RegOpenKeyExA(kMachine, "Software\\Key 59", 0, KEY_READ, &key) == ERROR_SUCCESS) {
            const Value value = GetValue(key, "value");
            ASSERT_TRUE(value.status == ERROR_BADDB || value.data == std::string(5900, 'h')) << "round " << round;
            RegCloseKey(key);
        }
    }
    EXPECT_GT(told, rounds / 2);
    ReplaceFile(MachineStore(), sound);
    EXPECT_EQ(Export(kMachine), text);
}

TEST(RegistryStore, ThatIsNoneIsRefused) {
    HKEY key = CreateKey(kMachine, "K");
    SetValue(key, "v", "1");
    const std::string elsewhere = PrivateDirectory() + "/elsewhere";
    const std::string store = ReadWholeFile(MachineStore());
    ReplaceFile(elsewhere, store);
    for (const char* suffix : {".sqlite", ".lock", ".seq", ".sqlite-journal"}) {
        for (const Plant plant : {Plant::kLink, Plant::kHardLink, Plant::kPipe, Plant::kDirectory}) {
            ASSERT_TRUE(PlantInPlace(MachineStore(suffix), plant, elsewhere));
            const LSTATUS read = GetValue(key, "v").status, written = SetValue(key, "v", "2");
            EXPECT_EQ(read, suffix == std::string(".sqlite") ? ERROR_BADDB : ERROR_SUCCESS) << suffix << int(plant);
            EXPECT_TRUE(written == ERROR_BADDB) << suffix << int(plant) << written;
            EXPECT_EQ(ReadWholeFile(elsewhere), store) << "no link is followed: " << suffix << int(plant);
        }
        fs::remove_all(MachineStore(suffix));
        if (suffix == std::string(".sqlite")) ReplaceFile(MachineStore(), store);
        EXPECT_EQ(SetValue(key, "v", "1"), ERROR_SUCCESS) << suffix;
    }
    // A store that lost its content is no empty registry.
    for (const char* content : {"", "text, and no database at all"}) {
        ReplaceFile(MachineStore(), content);
        EXPECT_EQ(GetValue(kMachine, "v").status, ERROR_BADDB);
        EXPECT_EQ(SetValue(kMachine, "v", "2"), ERROR_BADDB);
        EXPECT_EQ(ReadWholeFile(MachineStore()), content);
    }
    fs::remove(MachineStore()); // gone altogether: an empty registry again
    EXPECT_EQ(GetValue(kMachine, "v").status, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(SetValue(kMachine, "v", "3"), ERROR_SUCCESS);
}

TEST(RegistryText, EveryFormIsRead) {
    const std::string forms = "\r\n[HKEY_LOCAL_MACHINE\\Soft[ware]\\Forms]\r\n@=\"default\"\r\n"
                              "\"text \\\\ \\\"quoted\\\"\"=\"C:\\\\Dir\\\\\"";
    ASSERT_EQ(
        Import("REGEDIT4\r\n; a comment\r\n" + forms +
               " ; behind\r\n\"lines\"=\"one\r\ntwo\"\r\n\"word\" = DWORD:2A\r\n"
               "\"bytes\"=hex:00, 1,FF,\\\r\n  02,\\ \r\n\t03\r\n\"none\"=hex(0):\r\n\"multi\"=hex(7):61,00,00\r\n"
               "\"gone\"=dword:1\r\n\"gone\"=-\r\n\"never there\"=-\r\n[HKCU\\Other]\n\"v\"=hex(a0000001):01\n"
               "[HKLM\\Tree\\Below]\n[-HKLM\\TREE]\n[-HKLM\\Not\\There]"),
        ERROR_SUCCESS);
    EXPECT_EQ(Export(HKEY_LOCAL_MACHINE, "soft[ware]"),
              "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Soft[ware]]\r\n" + forms +
                  "\r\n\"lines\"=hex(1):6f,6e,65,0d,0a,74,77,6f,00\r\n\"word\"=dword:0000002a\r\n"
                  "\"bytes\"=hex:00,01,ff,02,03\r\n\"none\"=hex(0):\r\n\"multi\"=hex(7):61,00,00\r\n\r\n");
    EXPECT_EQ(Export(HKEY_CURRENT_USER), "REGEDIT4\r\n\r\n[HKEY_CURRENT_USER]\r\n\r\n"
                                         "[HKEY_CURRENT_USER\\Other]\r\n\"v\"=hex(a0000001):01\r\n\r\n");
    EXPECT_EQ(Export(HKEY_LOCAL_MACHINE, "Tree"), std::to_string(ERROR_FILE_NOT_FOUND));
}

TEST(RegistryText, UnicodeTextBecomesTheCodePages) {
    const std::u16string text = u"\uFEFFWindows Registry Editor Version 5.00\r\n"
                                u"[HKEY_LOCAL_MACHINE\\Caf\u00E9]\r\n\"na\u00EFve\"=\"\u20AC\"\r\n"
                                u"\"e\"=hex(2):ac,20,00,00\r\n\"b\"=hex:ac,20\r\n"; // the same in UTF-16; bytes
    ASSERT_EQ(Import({reinterpret_cast<const char*>(text.data()), text.size() * 2}), ERROR_SUCCESS);
    const std::string line = "\"na\xefve\"=\"\x80\"\r\n\"e\"=hex(2):80,00\r\n\"b\"=hex:ac,20\r\n\r\n";
    EXPECT_EQ(Export(HKEY_LOCAL_MACHINE, "Caf\xe9"), "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Caf\xe9]\r\n" + line);
    ASSERT_EQ(Import("REGEDIT4\n[-HKLM\\Caf\xe9]"), ERROR_SUCCESS);
    ASSERT_EQ(Import("\xef\xbb\xbfWindows Registry Editor Version 5.00\n[HKLM\\Caf\xc3\xa9]\n"), ERROR_SUCCESS);
    EXPECT_EQ(NamesIn(HKEY_LOCAL_MACHINE, kSubKeys), Names{"Caf\xe9"});
}

CHILD_PROCESS(ImportsInUtf8) {
    const std::string wide = "Windows Registry Editor Version 5.00\n[HKLM\\K\xc3\xa9]\n\"\xe6\xbc\xa2\"=";
    DWORD line = 0;
    std::string said = std::to_string(Import(wide + "\"\xf0\x9f\x98\x80\"\n"));
    said += " " + std::to_string(Import(wide + "hex(1):00,d8\n", &line)); // half a pair
    child.Say(said + " " + std::to_string(line) + " " +
              GetValue(OpenKey(kMachine, "K\xc3\xa9"), "\xe6\xbc\xa2").data.c_str());
    return 0;
}

TEST(RegistryText, CodePageMayBeUtf8) {
    TestProcess child("ImportsInUtf8", {}, {{"ORIEL_ANSI_CODE_PAGE", "65001"}});
    EXPECT_EQ(child.Hear(), "0 11 3 \xf0\x9f\x98\x80");
}

TEST(RegistryText, AMalformedLineChangesNothingAndIsTold) {
    const std::string good = "REGEDIT4\n[HKLM\\K]\n\"first\"=dword:1\n[HKCU\\K]\n";
    const std::string wide = "Windows Registry Editor Version 5.00\n[HKLM\\K]\n";
    const std::pair<std::string, DWORD> rows[] = {
        {"", 1},
        {good + "[HKEY_USERS\\K]\n", 5},
        {"REGEDIT4\n[-HKLM\\K]\n\"v\"=dword:1\n", 3},
        {good + "[HKLM\\" + std::string(256, 'k') + "]\n", 5},
        {good + "\"v\"=\"text\" more\n", 5},
        {good + "\"v\"=\"C:\\Dir\"\n", 5},
        {good + "\n\"v\"=\"never\nended", 6},
        {good + "\"v\"=hex:1,\\\n2,\\\nxx\n", 7},
        {good + std::string("\"v\"=\"a\0b\"\n", 10), 5},
        {wide + "\"v\"=\"\xe6\xbc\xa2\"\n", 3}, // not in the code page
        {wide + "\"v\"=hex(1):41,00,00\n", 3},  // half a character
    };
    for (const auto& [text, told] : rows) {
        DWORD line = 0xffff;
        EXPECT_EQ(Import(text, &line), ERROR_BAD_FORMAT) << text;
        EXPECT_EQ(line, told) << text;
    }
    for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER})
        EXPECT_EQ(Export(root, "K"), std::to_string(ERROR_FILE_NOT_FOUND));
}
