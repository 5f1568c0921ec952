// The emulated system: version, time, user, station, environment, profile, files.
#include "private_machine.h"
#include "registry_kit.h"
#include "win32_kit.h"

#include <cstring>
#include <fstream>

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
    EXPECT_EQ(text[length], '\0');
    EXPECT_EQ(text[size], '#');
    return {text, length};
}

} // namespace

TEST(SystemVersion, IsThatOfTheEnvironmentThenOfTheRegistryThenXp) {
    EXPECT_EQ(Version(), "2 5.1.2600");
    SetVersionValue("CurrentVersion", "4.0");
    EXPECT_EQ(Version(), "2 4.0.1381");
    SetVersionValue("CurrentBuildNumber", "1234");
    EXPECT_EQ(Version(), "2 4.0.1234");
    const struct {
        const char* setting;
        const char* version;
    } rows[] = {
        {"3.51", "2 3.51.1057"},    {"4.0", "2 4.0.1381"},         {"5.2", "2 5.2.3790"}, {"11.7", "2 11.7.0"},
        {"6.1.42", "2 6.1.42"},     {"9x:4.10", "1 4.10.1998"},    {"", "error 13"},      {"5", "error 13"},
        {"5.", "error 13"},         {"5.1 ", "error 13"},          {"9x", "error 13"},    {"9x:4", "error 13"},
        {"5.1.2600.1", "error 13"}, {"99999999999.1", "error 13"}, {"XP", "error 13"},
    };
    for (const auto& row : rows) {
        ASSERT_TRUE(SetEnvironmentVariableA("ORIEL_WINDOWS_VERSION", row.setting));
        EXPECT_EQ(Version(), row.version) << row.setting;
    }
    ASSERT_TRUE(SetEnvironmentVariableA("ORIEL_WINDOWS_VERSION", nullptr));
    SetVersionValue("CurrentVersion", "five");
    EXPECT_EQ(Version(), "error 13");
    OSVERSIONINFOA unsized{};
    EXPECT_FAILS(GetVersionExA(&unsized), ERROR_INSUFFICIENT_BUFFER);
}

TEST(SystemTime, FormsAgree) {
    const struct {
        uint64_t ticks;
        SYSTEMTIME time;
    } rows[] = {
        {0, {1601, 1, 1, 1, 0, 0, 0, 0}},
        {116'444'736'000'000'000, {1970, 1, 4, 1, 0, 0, 0, 0}},
        {125'963'423'999'990'000, {2000, 2, 2, 29, 23, 59, 59, 999}},
        {133'481'866'071'230'000, {2023, 12, 3, 27, 21, 36, 47, 123}},
        {0x7FFF'FFFF'FFFF'FFFF, {30828, 9, 4, 14, 2, 48, 5, 477}},
    };
    for (const auto& row : rows) {
        const FILETIME fileTime{static_cast<DWORD>(row.ticks), static_cast<DWORD>(row.ticks >> 32)};
        SYSTEMTIME time{};
        ASSERT_TRUE(FileTimeToSystemTime(&fileTime, &time));
        EXPECT_EQ(std::memcmp(&time, &row.time, sizeof time), 0)
            << row.ticks << ": " << time.wYear << "-" << time.wMonth << "-" << time.wDay << " " << time.wDayOfWeek;
        FILETIME back{};
        if (row.time.wYear > 30827) continue;
        ASSERT_TRUE(SystemTimeToFileTime(&time, &back));
        EXPECT_EQ(back.dwLowDateTime, fileTime.dwLowDateTime);
        EXPECT_EQ(back.dwHighDateTime, fileTime.dwHighDateTime);
    }
    const SYSTEMTIME impossible[] = {
        {1600, 12, 0, 31, 0, 0, 0, 0}, {2023, 2, 0, 29, 0, 0, 0, 0},   {2023, 13, 0, 1, 0, 0, 0, 0},
        {2023, 1, 0, 1, 24, 0, 0, 0},  {2023, 1, 0, 1, 0, 0, 0, 1000},
    };
    FILETIME ignored;
    for (const SYSTEMTIME& time : impossible)
        EXPECT_FALSE(SystemTimeToFileTime(&time, &ignored)) << time.wYear << "-" << time.wMonth << "-" << time.wDay;
    const FILETIME negative{0, 0x80000000};
    SYSTEMTIME time;
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

TEST(User, NameFitsOrTellsItsSize) {
    ASSERT_TRUE(SetEnvironmentVariableA("ORIEL_LOGON_NAME", "SYSTEM"));
    char name[8];
    for (DWORD room = 0; room <= 7; ++room) {
        DWORD size = room;
        std::memset(name, '#', sizeof name);
        EXPECT_EQ(GetUserNameA(name, &size) != FALSE, room == 7);
        EXPECT_EQ(size, 7U);
        EXPECT_STREQ(room == 7 ? name : "SYSTEM", "SYSTEM");
        EXPECT_EQ(name[room], '#');
        EXPECT_TRUE(room == 7 || GetLastError() == ERROR_INSUFFICIENT_BUFFER);
    }
    ASSERT_TRUE(SetEnvironmentVariableA("ORIEL_LOGON_NAME", nullptr));
    char account[257];
    DWORD size = sizeof account;
    ASSERT_TRUE(GetUserNameA(account, &size));
    EXPECT_EQ(std::strlen(account) + 1, size);
    EXPECT_NE(account[0], '\0');
}

TEST(WindowStation, HasTheNameThatWasSet) {
    const auto name = [] {
        char text[64];
        DWORD needed = 0;
        HWINSTA station = GetProcessWindowStation();
        if (station == nullptr) return string("none");
        EXPECT_FAILS(GetUserObjectInformationA(station, UOI_NAME, text, 3, &needed), ERROR_INSUFFICIENT_BUFFER);
        EXPECT_TRUE(GetUserObjectInformationA(station, UOI_NAME, text, needed, nullptr));
        EXPECT_EQ(needed, std::strlen(text) + 1);
        return string(text);
    };
    EXPECT_EQ(name(), "WinSta0");
    for (const char* station : {"Service-0x0-3e7$", "none"}) {
        ASSERT_TRUE(SetEnvironmentVariableA("ORIEL_WINDOW_STATION", station));
        EXPECT_EQ(name(), station);
    }
    char text[64];
    EXPECT_FALSE(GetUserObjectInformationA(nullptr, UOI_NAME, text, sizeof text, nullptr));
    ASSERT_TRUE(SetEnvironmentVariableA("ORIEL_WINDOW_STATION", nullptr));
    EXPECT_FALSE(GetUserObjectInformationA(GetProcessWindowStation(), 1, text, sizeof text, nullptr));
}

TEST(EnvironmentVariables, SizesAndAbsence) {
    char text[8] = "before";
    EXPECT_EQ(GetEnvironmentVariableA("ORIEL_TEST_VALUE", text, sizeof text), 0U);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ENVVAR_NOT_FOUND));
    ASSERT_TRUE(SetEnvironmentVariableA("ORIEL_TEST_VALUE", "1234567"));
    EXPECT_EQ(GetEnvironmentVariableA("ORIEL_TEST_VALUE", text, 7), 8U);
    EXPECT_EQ(GetEnvironmentVariableA("ORIEL_TEST_VALUE", nullptr, 0), 8U);
    EXPECT_STREQ(text, "before");
    EXPECT_EQ(GetEnvironmentVariableA("ORIEL_TEST_VALUE", text, 8), 7U);
    EXPECT_STREQ(text, "1234567");
    ASSERT_TRUE(SetEnvironmentVariableA("ORIEL_TEST_VALUE", ""));
    EXPECT_EQ(GetEnvironmentVariableA("ORIEL_TEST_VALUE", text, 8), 0U);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SUCCESS));
    for (const char* name : {"", "A=B", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(SetEnvironmentVariableA(name, "x"));
}

TEST(Profile, OfTheWindowsSectionIsKept) {
    EXPECT_EQ(Profile("device", "none  "), "none");
    EXPECT_EQ(Profile("device", nullptr), "");
    ASSERT_TRUE(WriteProfileStringA("windows", "device", "Front desk,winspool,LPT1:"));
    EXPECT_EQ(Profile("Device", ""), "Front desk,winspool,LPT1:");
    EXPECT_EQ(Profile("device", "", 6), "Front");
    EXPECT_EQ(Profile("device", "", 1), "");
    ASSERT_TRUE(WriteProfileStringA("Windows", "device", "\"quoted \""));
    EXPECT_EQ(Profile("device", ""), "quoted ");
    ASSERT_TRUE(WriteProfileStringA("Windows", "device", nullptr));
    ASSERT_TRUE(WriteProfileStringA("Windows", "device", nullptr));
    EXPECT_EQ(Profile("device", "gone"), "gone");
    char text[10];
    EXPECT_EQ(GetProfileStringA("Other", "device", "default", text, 10), 7U);
    EXPECT_EQ(GetProfileStringA("Windows", nullptr, "", text, 10), 0U);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(WriteProfileStringA("Other", "device", "x"));
}

TEST(Files, ExistOrSayWhyNot) {
    const string folder = WindowsPath(PrivateDirectory());
    std::ofstream(PrivateDirectory() + "/here.exe") << "x";
    const auto open = [](const string& name, DWORD attributes = FILE_FLAG_NO_BUFFERING) -> DWORD {
        HANDLE file =
            CreateFileA(name.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, attributes, nullptr);
        if (file == INVALID_HANDLE_VALUE) return GetLastError();
        EXPECT_TRUE(CloseHandle(file));
        EXPECT_FALSE(CloseHandle(file));
        return ERROR_SUCCESS;
    };
    const struct {
        string name;
        DWORD error;
    } rows[] = {
        {folder + "\\here.exe", ERROR_SUCCESS},
        {"d:" + folder + "\\here.exe", ERROR_SUCCESS},
        {PrivateDirectory() + "/here.exe", ERROR_SUCCESS},
        {folder + "here.exe", ERROR_FILE_NOT_FOUND},
        {folder + "\\gone.exe", ERROR_FILE_NOT_FOUND},
        {folder + "\\gone\\here.exe", ERROR_PATH_NOT_FOUND},
        {folder + "\\here.exe\\x", ERROR_PATH_NOT_FOUND},
        {folder, ERROR_ACCESS_DENIED},
        {"", ERROR_INVALID_NAME},
        {folder + "\\" + string(300, 'x'), ERROR_FILENAME_EXCED_RANGE},
    };
    for (const auto& row : rows)
        EXPECT_EQ(open(row.name), row.error) << row.name;
    EXPECT_EQ(open(folder + "\\here.exe", FILE_ATTRIBUTE_NORMAL), static_cast<DWORD>(ERROR_SUCCESS));
    const string name = folder + "\\here.exe";
    SECURITY_ATTRIBUTES attributes{sizeof attributes, nullptr, FALSE};
    SetLastError(ERROR_SUCCESS);
    for (const HANDLE file :
         {CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr),
          CreateFileA(name.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr),
          CreateFileA(name.c_str(), GENERIC_READ, FILE_SHARE_READ, &attributes, OPEN_EXISTING, 0, nullptr),
          CreateFileA(name.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, 2, 0, nullptr),
          CreateFileA(nullptr, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr)})
        EXPECT_EQ(file, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(Module, NameIsWholeOrCut) {
    char whole[4096];
    const DWORD length = GetModuleFileNameA(nullptr, whole, sizeof whole);
    ASSERT_GT(length, 0U);
    EXPECT_EQ(std::strlen(whole), length);
    const string path = whole;
    EXPECT_EQ(path.front(), '\\');
    EXPECT_NE(path.substr(path.rfind('\\') + 1).find("_tests"), string::npos) << path;
    for (const DWORD room : {1U, 5U, length, length + 1}) {
        std::memset(whole, '#', sizeof whole);
        const bool fits = room > length;
        EXPECT_EQ(GetModuleFileNameA(nullptr, whole, room), fits ? length : room);
        EXPECT_EQ(string(whole), path.substr(0, room - 1));
        EXPECT_EQ(whole[room], '#');
        EXPECT_TRUE(fits || GetLastError() == ERROR_INSUFFICIENT_BUFFER);
    }
    EXPECT_EQ(GetModuleFileNameA(nullptr, whole, 0), 0U);
    EXPECT_EQ(GetModuleFileNameA(ULongToHandle(0x1000), whole, sizeof whole), 0U);
    EXPECT_TRUE(DisableThreadLibraryCalls(ULongToHandle(0x1000)));
    EXPECT_FALSE(DisableThreadLibraryCalls(nullptr));
}
