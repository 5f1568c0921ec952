// What the library makes of each Windows, and the repair of a default printer that does not exist any more.
#include "base/timings.h"
#include "machine.h"
#include "machine/objects.h"
#include "manager/kind_effects.h"

namespace {

const std::string kPortsKey = "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\PrinterPorts";

} // namespace

// Windows 95/98/Me has no security: objects get the platform's default, and the open works all the same.
TEST(Versions, EachHasItsBitItsNamesAndItsSecurity) {
    const Bytes listed = Joined({BytesOf("Small Business"), BytesOf("Terminal Server"), BytesOf("")});
    // suite: "ProductSuite", of this type.
    const std::tuple<const char*, DWORD, Bytes, uint32_t, bool> rows[] = {
        {"9x:4.10", REG_MULTI_SZ, listed, OsWindows9x, true},
        {"3.50", REG_MULTI_SZ, {}, OsNt350, false},
        {"3.51", REG_MULTI_SZ, {}, OsNt351, false},
        {"4.0", REG_MULTI_SZ, listed, OsNtLater, true},
        {"5.0", REG_MULTI_SZ, Text("Terminal Server"), OsNtLater, true}, // stored without its NULs
        {"5.0", REG_BINARY, listed, OsNtLater, false},
        {"5.0", REG_MULTI_SZ, Joined({{0}, listed}), OsNtLater, false}, // the list ends first
        {"5.1", REG_MULTI_SZ, {}, OsNtLater, true},
    };
    SetUpProduct();
    const Service service;
    for (const auto& [version, type, suite, bit, terminalServer] : rows) {
        SCOPED_TRACE(version);
        UseSetting("ORIEL_WINDOWS_VERSION", version);
        SetRegistryValue("System\\CurrentControlSet\\Control\\ProductOptions", "ProductSuite", type, suite);
        const Library library;
        EXPECT_EQ(g_terminalServer, terminalServer);
        const std::string prefix = terminalServer ? "Global\\" : "";
        EXPECT_EQ(ObjectName(kDatabaseMutexName).text, prefix + "TVORSQD:Mutex:DabaBase");
        const TvsManager manager = OpenPrinter();
        EXPECT_EQ(ObjectSecurity() != nullptr, (bit & OsNtAny) != 0);
        EXPECT_EQ(RecordOf(manager)->flags & (OsWindows9x | OsNtAny), bit);
    }
}

// The process's first open of the kinds that care does it, under Windows NT, and no later one.
TEST(DefaultPrinter, IsRepairedByAProcessesFirstOpen) {
    const Product product;
    g_timings.defaultPrinterPause = 0;
    AddToSpooler("Front desk");
    const auto opens = [](const std::string& device, uint32_t kind, const char* version) {
        UseSetting("ORIEL_WINDOWS_VERSION", version);
        WriteProfileStringA("Windows", "device", device.c_str());
        EXPECT_EQ(OpenStatus(kPrinter, kind), TVS_OK) << kind;
        char now[300];
        GetProfileStringA("Windows", "device", "", now, sizeof now);
        return std::string(now);
    };
    const std::string gone = "Gone,winspool,LPT1:";
    const std::string repaired = "Front desk,winspool,Ne01:";
    EXPECT_EQ(opens(gone, 2, "5.1"), gone); // the user has no ports
    for (const std::string entry : {"winspool,Ne01:", "winspool,Ne01:,15,45"}) {
        SetRegistryText(kPortsKey, "Front desk", entry, HKEY_CURRENT_USER);
        EXPECT_EQ(opens(gone, 2, "4.0"), entry.size() > 15 ? repaired : gone);
    }
    EXPECT_EQ(opens("front desk,winspool,LPT1:", 12, "5.1"), repaired) << "another name";
    EXPECT_EQ(opens(gone, 1, "5.1"), gone);
    EXPECT_EQ(opens(gone, 2, "9x:4.10"), gone);
    OpenPrinter(1);
    EXPECT_EQ(opens(gone, 2, "5.1"), gone);
}
