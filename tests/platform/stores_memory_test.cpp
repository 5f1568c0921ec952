// Every allocation of the registry and the spooler made to fail, one after the other: those of C++ and those of SQLite.
#include "private_machine.h"
#include "spooler_kit.h"

#include <cstdlib>
#include <functional>
#include <new>
#include <sqlite3.h>
#include <winreg_text.h>

namespace {

thread_local int t_allocations;
thread_local int t_failFrom;  // 0: none
thread_local int t_failCount; // how many fail from there on
thread_local long t_living;   // objects of C++

bool IsToFail() {
    const int number = ++t_allocations;
    return t_failFrom != 0 && number >= t_failFrom && number < t_failFrom + t_failCount;
}

sqlite3_mem_methods g_sqlite;

// Before SQLite is used for the first time.
const int g_hooked = [] {
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &g_sqlite);
    sqlite3_mem_methods hooked = g_sqlite;
    hooked.xMalloc = [](int size) { return IsToFail() ? nullptr : g_sqlite.xMalloc(size); };
    hooked.xRealloc = [](void* block, int size) { return IsToFail() ? nullptr : g_sqlite.xRealloc(block, size); };
    return sqlite3_config(SQLITE_CONFIG_MALLOC, &hooked);
}();

} // namespace

void* operator new(size_t size) {
    void* block = IsToFail() ? nullptr : std::malloc(size);
    if (block == nullptr) throw std::bad_alloc();
    ++t_living;
    return block;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    void* block = IsToFail() ? nullptr : std::malloc(size);
    t_living += block != nullptr;
    return block;
}
void operator delete(void* block) noexcept {
    t_living -= block != nullptr;
    std::free(block);
}
void operator delete(void* block, size_t) noexcept {
    operator delete(block);
}

TEST(StoresMemory, EachAllocationMayFail) {
    ASSERT_EQ(g_hooked, SQLITE_OK);
    HKEY key = CreateKey(HKEY_LOCAL_MACHINE, "K"), handle = nullptr;
    HANDLE printer = nullptr, other = nullptr;
    ASSERT_EQ(Add("Office", "Driver", "LPT1:", 0, &printer), DWORD{ERROR_SUCCESS});
    const std::string import = "REGEDIT4\n[HKLM\\I]\n\"a\"=dword:1\n[HKCU\\I]\n\"b\"=\"text\"\n", large(5000, 'x');
    std::vector<BYTE> room(1 << 20);
    BYTE* buffer = room.data();
    DWORD size = 0, count = 0, job = 0;
    int number = 0;
    // Nothing here may allocate but what is called: these names are short enough.
    const auto numbered = [&](const char* text) { return text + std::to_string(number++); };
    const auto code = [](BOOL done) { return Code(done); };
    char office[] = "Office", driver[] = "Driver", port[] = "LPT1:", letter[] = "letter";
    DOC_INFO_1A document{letter, nullptr, nullptr};
    PRINTER_INFO_2A record{.pPortName = port, .pDriverName = driver};
    const std::pair<const char*, std::function<DWORD()>> calls[] = {
        {"create", [&] { return DWORD(TryCreateKey(key, numbered("Sub"), &handle)) ?: DWORD(RegCloseKey(handle)); }},
        {"open", [&] { return DWORD(RegOpenKeyExA(key, "Sub0", 0, KEY_READ, &handle)) ?: DWORD(RegCloseKey(handle)); }},
        {"set", [&] { return DWORD(SetValue(key, "v", large)); }},
        {"query",
         [&] { return DWORD(RegQueryValueExA(key, "v", nullptr, nullptr, buffer, &(size = DWORD(room.size())))); }},
        {"enumerate", [&] { return DWORD(NameAt(key, 0, kSubKeys)) ?: DWORD(NameAt(key, 0, kValues)); }},
        {"describe",
         [&] {
             return DWORD(RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &count, nullptr, nullptr, nullptr, nullptr,
                                           nullptr, nullptr, nullptr));
         }},
        {"import", [&] { return DWORD(RegImportTextA(import.data(), import.size(), nullptr)); }},
        {"export",
         [&] {
             SIZE_T length = DWORD(room.size());
             return DWORD(RegExportTextA(HKEY_LOCAL_MACHINE, "I", reinterpret_cast<char*>(buffer), &length));
         }},
        {"add printer",
         [&] {
             const std::string name = numbered("P");
             record.pPrinterName = const_cast<char*>(name.c_str());
             const HANDLE added = AddPrinterA(nullptr, 2, reinterpret_cast<LPBYTE>(&record));
             return added == nullptr ? GetLastError() : code(DeletePrinter(added)) ?: code(ClosePrinter(added));
         }},
        {"printers", [&] { return code(EnumPrintersA(kBoth, nullptr, 2, buffer, DWORD(room.size()), &size, &count)); }},
        {"printer", [&] { return code(OpenPrinterA(office, &other, nullptr)) ?: code(ClosePrinter(other)); }},
        {"document",
         [&] {
             job = StartDocPrinterA(printer, 1, reinterpret_cast<LPBYTE>(&document));
             return job != 0 ? code(WritePrinter(printer, buffer, 9, &size)) ?: code(EndDocPrinter(printer))
                             : GetLastError();
         }},
        {"jobs", [&] { return code(EnumJobsA(printer, 0, 9, 1, buffer, DWORD(room.size()), &size, &count)); }},
        {"pause", [&] { return Control(printer, job, JOB_CONTROL_PAUSE); }},
    };
    for (const auto& [name, call] : calls) {
        ASSERT_EQ(call(), DWORD{ERROR_SUCCESS}) << name;
        for (const int failures : {1, 4}) {
            const unsigned descriptors = OpenDescriptors();
            for (int at = 1;; ++at) {
                // A document that could not be ended may still be open.
                EndDocPrinter(printer);
                t_allocations = 0;
                t_failCount = failures;
                t_failFrom = at;
                const DWORD result = call();
                t_failFrom = 0;
                if (t_allocations < at) break;
                EXPECT_TRUE(result == ERROR_SUCCESS || result == ERROR_NOT_ENOUGH_MEMORY || result == ERROR_OUTOFMEMORY)
                    << name << ": " << result << " at " << at;
                EXPECT_EQ(call(), DWORD{ERROR_SUCCESS}) << name << " after " << at;
                ASSERT_FALSE(HasFailure());
            }
            EXPECT_EQ(OpenDescriptors(), descriptors) << name;
        }
        const long living = t_living;
        for (int at = 1; at < 40; ++at) {
            t_allocations = 0;
            t_failFrom = at;
            call();
            t_failFrom = 0;
            EndDocPrinter(printer);
        }
        EXPECT_LE(t_living, living + 2) << name;
    }
}
