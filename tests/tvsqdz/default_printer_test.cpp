// The repair of a default printer that does not exist any more.
#include "base/timings.h"
#include "machine.h"
#include "manager/kind_effects.h"

namespace {

const std::string kPortsKey = "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\PrinterPorts";

std::string Device() {
    char text[300];
    GetProfileStringA("Windows", "device", "", text, sizeof text);
    return text;
}

} // namespace

TEST(DefaultPrinter, IsReplacedOnlyWhenItHasGone) {
    InstallProduct();
    const Library library;
    g_timings.defaultPrinterPause = 0;
    const auto setDevice = [](const char* text) { WriteProfileStringA("Windows", "device", text); };
    setDevice("Gone,winspool,LPT1:");
    EXPECT_FALSE(RepairDefaultPrinter("Front desk")); // no printers at all
    AddToSpooler("Front desk");
    setDevice(nullptr);
    EXPECT_FALSE(RepairDefaultPrinter("Front desk")); // none is set
    setDevice("Front desk,winspool,LPT1:");
    EXPECT_TRUE(RepairDefaultPrinter("Other"));
    EXPECT_EQ(Device(), "Front desk,winspool,LPT1:");

    setDevice("front desk,winspool,LPT1:");           // another name
    EXPECT_FALSE(RepairDefaultPrinter("Front desk")); // the user has no ports
    struct Row {
        const char* entry;
        bool repaired;
    };
    for (const Row& row : {Row{"winspool", false}, Row{"winspool,Ne01:", false}, Row{"winspool,Ne01:,15,45", true}}) {
        SetRegistryText(kPortsKey, "Front desk", row.entry, HKEY_CURRENT_USER);
        EXPECT_EQ(RepairDefaultPrinter("Front desk"), row.repaired) << row.entry;
        EXPECT_EQ(Device(), row.repaired ? "Front desk,winspool,Ne01:" : "front desk,winspool,LPT1:");
    }
    setDevice("Gone");
    EXPECT_FALSE(RepairDefaultPrinter("Not in the list"));
    EXPECT_EQ(Device(), "Gone");
}

// The process's first open of the kinds that care does it, under Windows NT, and no later one.
TEST(DefaultPrinter, IsRepairedByAProcessesFirstOpen) {
    Product product;
    g_timings.defaultPrinterPause = 0;
    AddToSpooler("Front desk");
    SetRegistryText(kPortsKey, "Front desk", "winspool,Ne01:,15,45", HKEY_CURRENT_USER);
    const auto repairs = [](uint32_t kind, const char* version) {
        UseSetting("ORIEL_WINDOWS_VERSION", version);
        WriteProfileStringA("Windows", "device", "Gone,winspool,LPT1:");
        EXPECT_EQ(OpenStatus(kPrinter, kind), TVS_OK) << kind;
        return Device().starts_with("Front desk");
    };
    EXPECT_FALSE(repairs(1, "5.1"));
    EXPECT_TRUE(repairs(12, "5.1"));
    EXPECT_FALSE(repairs(2, "9x:4.10"));
    EXPECT_TRUE(repairs(2, "4.0"));
    const TvsManager open = OpenPrinter(1);
    EXPECT_FALSE(repairs(2, "5.1"));
    EXPECT_EQ(CloseManager(open), TVS_OK);
}
