// The emulated system: version, time, user, station, environment, profile, files.
#include "kit.h"
#include "private_machine.h"

#include <cstring>

namespace {

using std::string;

void SetVersionValue(const char* name, const string& text) {
    HKEY key = CreateKey(HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion");
    EXPECT_EQ(SetValue(key, name, text + '\0', REG_SZ), ERROR_SUCCESS);
}

// "platform major.minor.build", or the error.
string Version() {
    OSVERSIONINFOA version{.dwOSVersionInfoSize = sizeof version};
    if (!GetVersionExA(&version)) return "error " + std::to_string(GetLastError());
    return std::to_string(version.dwPlatformId) + " " + std::to_string(version.dwMajorVersion) + "." +
           std::to_string(version.dwMinorVersion) + "." + std::to_string(version.dwBuildNumber);
}

uint64_t Ticks(const FILETIME& time) {
    return uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

} // namespace

TEST(SystemVersion, IsThatOfTheEnvironmentThenOfTheRegistryThenXp) {
    EXPECT_EQ(Version(), "2 5.1.2600");
    SetVersionValue("CurrentVersion", "4.0");
    EXPECT_EQ(Version(), "2 4.0.1381");
    SetVersionValue("CurrentBuildNumber", "1234");
    EXPECT_EQ(Version(), "2 4.0.1234");
    for (const auto& [setting, version] : {std::pair{"3.51", "2 3.51.1057"},
                                           {"11.7", "2 11.7.0"},
                                           {"6.1.42", "2 6.1.42"},
                                           {"9x:4.10", "1 4.10.1998"},
                                           {"5", "error 13"},
                                           {"5.1.2600.1", "error 13"},
                                           {"99999999999.1", "error 13"}}) {
        UseSetting("ORIEL_WINDOWS_VERSION", setting);
        EXPECT_EQ(Version(), version) << setting;
    }
}

TEST(SystemTime, FormsAgreeAndWhatIsNoTimeIsRefused) {
    const std::pair<uint64_t, SYSTEMTIME> rows[] = {
        {125'963'423'999'990'000, {2000, 2, 2, 29, 23, 59, 59, 999}},
        {133'481'866'071'230'000, {2023, 12, 3, 27, 21, 36, 47, 123}},
        {0x7FFF'35F4'F06C'58F0, {30827, 12, 5, 31, 23, 59, 59, 999}}, // the last year that there is
    };
    SYSTEMTIME time{};
    FILETIME back{};
    for (const auto& [ticks, expected] : rows) {
        const FILETIME fileTime{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
        ASSERT_TRUE(FileTimeToSystemTime(&fileTime, &time));
        EXPECT_EQ(std::memcmp(&time, &expected, sizeof time), 0) << ticks << ": " << time.wYear;
        ASSERT_TRUE(SystemTimeToFileTime(&time, &back));
        EXPECT_EQ(Ticks(back), ticks);
    }
    for (const SYSTEMTIME& none :
         {SYSTEMTIME{1600, 12, 0, 31}, {2023, 2, 0, 29}, {2023, 13, 0, 1}, {2023, 1, 0, 1, 24}})
        EXPECT_FALSE(SystemTimeToFileTime(&none, &back)) << none.wYear << "-" << none.wMonth;
}

TEST(Files, ExistOrSayWhyNot) {
    const string folder = WindowsPath(PrivateDirectory());
    ReplaceFile(PrivateDirectory() + "/here.exe", "x");
    const std::pair<string, DWORD> rows[] = {
        {folder + "\\here.exe", ERROR_SUCCESS},
        {"d:" + folder + "\\here.exe", ERROR_SUCCESS}, // drives are nothing
        {folder + "\\gone.exe", ERROR_FILE_NOT_FOUND},
        {folder + "\\here.exe\\x", ERROR_PATH_NOT_FOUND},
        {folder, ERROR_ACCESS_DENIED},
        {folder + "\\" + string(300, 'x'), ERROR_FILENAME_EXCED_RANGE},
    };
    for (const auto& [name, error] : rows) {
        const HANDLE file =
            CreateFileA(name.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        EXPECT_EQ(Code(file != INVALID_HANDLE_VALUE), error) << name;
        EXPECT_TRUE(CloseHandle(file));
    }
}

TEST(Modules, AreLoadedByABareNameAndByNoPath) {
    const HMODULE module = LoadLibraryExA("oriel_ipp", nullptr, LOAD_LIBRARY_SEARCH_APPLICATION_DIR);
    ASSERT_TRUE(module) << GetLastError();
    EXPECT_TRUE(GetProcAddress(module, "OrielDeviceModule"));
    EXPECT_EQ(Code(GetProcAddress(module, "NoSuchExport") != nullptr), DWORD{ERROR_PROC_NOT_FOUND});
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_EQ(Code(LoadLibraryExA("oriel_none", nullptr, LOAD_LIBRARY_SEARCH_APPLICATION_DIR) != nullptr),
              DWORD{ERROR_MOD_NOT_FOUND});
    for (const char* name : {"", "../oriel/liboriel_ipp", "oriel_ipp.so", "c:oriel_ipp", "..\\oriel_ipp"})
        EXPECT_EQ(Code(LoadLibraryExA(name, nullptr, LOAD_LIBRARY_SEARCH_APPLICATION_DIR) != nullptr),
                  DWORD{ERROR_INVALID_PARAMETER})
            << name;
    EXPECT_EQ(Code(LoadLibraryExA("oriel_ipp", nullptr, 0) != nullptr), DWORD{ERROR_INVALID_PARAMETER});
}
