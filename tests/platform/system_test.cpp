// The emulated system: version, time, user, station, environment, profile, files.
#include "private_machine.h"
#include "registry_kit.h"
#include "win32_kit.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <vector>

namespace {

using std::string;

void SetVersionValue(const char* name, const string& text) {
    HKEY key = CreateKey(HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion");
    EXPECT_EQ(SetValue(key, name, text + '\0', REG_SZ), ERROR_SUCCESS);
}

// "platform major.minor.build", or the error.
string Version() {
    OSVERSIONINFOA version{};
    version.dwOSVersionInfoSize = sizeof version;
    if (!GetVersionExA(&version)) return "error " + std::to_string(GetLastError());
    return std::to_string(version.dwPlatformId) + " " + std::to_string(version.dwMajorVersion) + "." +
           std::to_string(version.dwMinorVersion) + "." + std::to_string(version.dwBuildNumber);
}

string Profile(const char* key, const char* defaultValue, DWORD size = 100) {
    char text[101];
    std::memset(text, '#', sizeof text);
    const DWORD length = GetProfileStringA("Windows", key, defaultValue, text, size);
    EXPECT_EQ(text[size], '#');
    return {text, length};
}

} // namespace

TEST(SystemVersion, IsThatOfTheEnvironmentThenOfTheRegistryThenXp) {
    NeedsTheLayer("the layer's settings");
    EXPECT_EQ(Version(), "2 5.1.2600");
    SetVersionValue("CurrentVersion", "4.0");
    EXPECT_EQ(Version(), "2 4.0.1381");
    SetVersionValue("CurrentBuildNumber", "1234");
    EXPECT_EQ(Version(), "2 4.0.1234");
    for (const auto& [setting, version] :
         {std::pair{"3.51", "2 3.51.1057"}, {"11.7", "2 11.7.0"}, {"6.1.42", "2 6.1.42"}, {"9x:4.10", "1 4.10.1998"}}) {
        UseSetting("ORIEL_WINDOWS_VERSION", setting);
        EXPECT_EQ(Version(), version);
    }
    for (const char* setting : {"", "5", "5.", "5.1 ", "9x", "9x:4", "5.1.2600.1", "99999999999.1", "XP"}) {
        UseSetting("ORIEL_WINDOWS_VERSION", setting);
        EXPECT_EQ(Version(), "error 13") << setting;
    }
    UseSetting("ORIEL_WINDOWS_VERSION", nullptr);
    SetVersionValue("CurrentVersion", "five");
    EXPECT_EQ(Version(), "error 13");
}

TEST(SystemTime, FormsAgree) {
    const struct {
        uint64_t ticks;
        SYSTEMTIME time;
    } rows[] = {
        {0, {1601, 1, 1, 1, 0, 0, 0, 0}},
        {125'963'423'999'990'000, {2000, 2, 2, 29, 23, 59, 59, 999}},
        {133'481'866'071'230'000, {2023, 12, 3, 27, 21, 36, 47, 123}},
        {0x7FFF'35F4'F06C'58F0, {30827, 12, 5, 31, 23, 59, 59, 999}}, // the last year that there is
    };
    SYSTEMTIME time{};
    FILETIME back{};
    for (const auto& row : rows) {
        const FILETIME fileTime{static_cast<DWORD>(row.ticks), static_cast<DWORD>(row.ticks >> 32)};
        ASSERT_TRUE(FileTimeToSystemTime(&fileTime, &time));
        EXPECT_EQ(std::memcmp(&time, &row.time, sizeof time), 0)
            << row.ticks << ": " << time.wYear << "-" << time.wMonth << "-" << time.wDay << " " << time.wDayOfWeek;
        ASSERT_TRUE(SystemTimeToFileTime(&time, &back));
        EXPECT_EQ(std::memcmp(&back, &fileTime, sizeof back), 0) << row.ticks;
    }
    const FILETIME negative{0, 0x80000000};
    EXPECT_FALSE(FileTimeToSystemTime(&negative, &time));

    FILETIME before, now, after;
    GetSystemTimeAsFileTime(&before);
    GetSystemTime(&time);
    GetSystemTimeAsFileTime(&after);
    ASSERT_TRUE(SystemTimeToFileTime(&time, &now));
    const auto ms = [](const FILETIME& t) {
        return (static_cast<uint64_t>(t.dwHighDateTime) << 32 | t.dwLowDateTime) / 10'000;
    };
    EXPECT_LE(ms(before), ms(now));
    EXPECT_LE(ms(now), ms(after));
}

TEST(SystemTime, WhatIsNoTimeIsRefused) {
    FILETIME time{};
    for (const SYSTEMTIME& impossible : {SYSTEMTIME{1600, 12, 0, 31, 0, 0, 0, 0},
                                         {2023, 2, 0, 29, 0, 0, 0, 0},
                                         {2023, 13, 0, 1, 0, 0, 0, 0},
                                         {2023, 1, 0, 1, 24, 0, 0, 0}})
        EXPECT_FALSE(SystemTimeToFileTime(&impossible, &time)) << impossible.wYear << "-" << impossible.wMonth;
}

// What does not fit is told by its size, or cut, and nothing is written behind the room.
TEST(SystemTexts, FitOrTellTheirSize) {
    char text[4096];
    for (const char* setting : {static_cast<const char*>(nullptr), "SYSTEM"}) {
        UseSetting("ORIEL_LOGON_NAME", setting);
        DWORD whole = sizeof text;
        ASSERT_TRUE(GetUserNameA(text, &whole));
        const string name = text;
        EXPECT_TRUE(setting == nullptr || name == setting || !OnTheLayer());
        ASSERT_EQ(name.size() + 1, whole);
        EXPECT_GT(whole, 1U);
        for (DWORD room = 0; room <= whole; ++room) {
            DWORD size = room;
            std::memset(text, '#', sizeof text);
            EXPECT_EQ(GetUserNameA(text, &size) != FALSE, room == whole);
            EXPECT_EQ(size, whole);
            EXPECT_EQ(string(text, room), room == whole ? name + '\0' : string(room, '#'));
            EXPECT_EQ(text[room], '#');
            EXPECT_TRUE(room == whole || GetLastError() == ERROR_INSUFFICIENT_BUFFER);
        }
    }

    for (const char* station : {"WinSta0", "Service-0x0-3e7$", "none"}) {
        if (*station != 'W' && !OnTheLayer()) break;
        UseSetting("ORIEL_WINDOW_STATION", station);
        const HWINSTA open = GetProcessWindowStation();
        EXPECT_EQ(open == nullptr, string(station) == "none");
        if (open == nullptr) continue;
        DWORD needed = 0;
        EXPECT_FAILS(GetUserObjectInformationA(open, UOI_NAME, text, 3, &needed), ERROR_INSUFFICIENT_BUFFER);
        EXPECT_TRUE(GetUserObjectInformationA(open, UOI_NAME, text, needed, nullptr));
        EXPECT_STREQ(text, station);
        EXPECT_TRUE(!OnTheLayer() || !GetUserObjectInformationA(open, 1, text, sizeof text, nullptr));
    }
    EXPECT_FALSE(GetUserObjectInformationA(nullptr, UOI_NAME, text, sizeof text, nullptr));

    const DWORD length = GetModuleFileNameA(nullptr, text, sizeof text);
    const string path(text, length);
    EXPECT_EQ(path[OnTheLayer() ? 0 : 2], '\\'); // no drive
    EXPECT_NE(path.substr(path.rfind('\\') + 1).find("_tests"), string::npos) << path;
    for (const DWORD room : std::array{DWORD{1}, DWORD{5}, length, length + 1}) {
        std::memset(text, '#', sizeof text);
        SetLastError(kSentinel);
        EXPECT_EQ(GetModuleFileNameA(nullptr, text, room), room > length ? length : room);
        EXPECT_EQ(string(text, room - 1), path.substr(0, room - 1));
        EXPECT_TRUE(text[std::min(room - 1, length)] == '\0' || !OnTheLayer()); // Windows XP leaves it out
        EXPECT_EQ(text[room], '#');
        EXPECT_EQ(GetLastError() == ERROR_INSUFFICIENT_BUFFER, room <= length);
    }
    EXPECT_EQ(GetModuleFileNameA(static_cast<HMODULE>(ULongToHandle(0x1000)), text, sizeof text), 0U);
}

TEST(Profile, OfTheWindowsSectionIsKept) {
    EXPECT_EQ(Profile("device", "none  "), "none");
    ASSERT_TRUE(WriteProfileStringA("windows", "device", "\"Front desk \""));
    EXPECT_EQ(Profile("Device", ""), "Front desk ");
    EXPECT_EQ(Profile("device", "", 6), "Front");
    EXPECT_EQ(Profile("device", "", 1), "");
    ASSERT_TRUE(WriteProfileStringA("Windows", "device", nullptr));
    EXPECT_EQ(Profile("device", "gone"), "gone");
    EXPECT_TRUE(!OnTheLayer() || !WriteProfileStringA("Other", "device", "x"));
}

TEST(Files, ExistOrSayWhyNot) {
    const string folder = WindowsPath(PrivateDirectory());
    std::ofstream(PrivateDirectory() + "/here.exe") << "x";
    const auto open = [](const string& name, DWORD access = GENERIC_READ, DWORD share = FILE_SHARE_READ) -> DWORD {
        SetLastError(ERROR_SUCCESS);
        HANDLE file = CreateFileA(name.c_str(), access, share, nullptr, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING, nullptr);
        EXPECT_TRUE(file == INVALID_HANDLE_VALUE || CloseHandle(file));
        return GetLastError();
    };
    struct Row {
        string name;
        DWORD error;
    };
    std::vector<Row> rows = {
        {folder + "\\here.exe", ERROR_SUCCESS},           {PrivateDirectory() + "/here.exe", ERROR_SUCCESS},
        {folder + "\\gone.exe", ERROR_FILE_NOT_FOUND},    {folder + "\\gone\\here.exe", ERROR_PATH_NOT_FOUND},
        {folder + "\\here.exe\\x", ERROR_PATH_NOT_FOUND}, {folder, ERROR_ACCESS_DENIED},
    };
    if (OnTheLayer()) {
        rows.insert(rows.end(), {{"d:" + folder + "\\here.exe", ERROR_SUCCESS}, // drives are nothing
                                 {"", ERROR_INVALID_NAME},
                                 {folder + "\\" + string(300, 'x'), ERROR_FILENAME_EXCED_RANGE}});
        EXPECT_EQ(open(rows[0].name, GENERIC_READ | GENERIC_WRITE), DWORD{ERROR_INVALID_PARAMETER});
        EXPECT_EQ(open(rows[0].name, GENERIC_READ, 0), DWORD{ERROR_INVALID_PARAMETER});
    }
    for (const Row& row : rows)
        EXPECT_EQ(open(row.name), row.error) << row.name;
}
