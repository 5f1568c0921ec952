// What the registry and the spooler know of a printer: driver, model, and the variables that the model defines.
#include "base/memory.h"
#include "machine.h"
#include "manager/printer_registration.h"
#include "manager/variable_index.h"

#include <cstring>

namespace {

const std::string kKeys = "System\\CurrentControlSet\\Control\\Print\\Printers\\";

// A record as an open has it before it asks what the printer's variables are.
struct Record {
    explicit Record(const std::string& printer = kPrinter) {
        std::memcpy(manager.printerName, printer.c_str(), printer.size() + 1);
    }
    ~Record() {
        FreeVariables(&manager);
        FreeBlock(manager.driverName);
    }
    const StatusVariableDef* Find(const char* name) { return FindStatusVariable(&manager, name); }

    ManagerRecord manager = {};
};

} // namespace

TEST(Registration, DriverComesFromTheKeyOrElseFromTheSpooler) {
    InstallProduct();
    const Library library;
    const auto driverOf = [](const std::string& printer) -> std::string {
        Record record(printer);
        return LookUpDriverName(&record.manager) ? record.manager.driverName : "(none)";
    };
    EXPECT_STREQ(PrinterKeyName("\\\\server\\queue\\").name, ",,server,queue,");
    EXPECT_EQ(driverOf("Front desk"), "(none)"); // no printers at all
    AddPrinter("Front desk", "Driver A");
    AddPrinter("\\\\server\\queue", "Driver B");
    AddToSpooler("\\\\server\\far", "Driver C");
    SetRegistryValue(kKeys + "Unterminated", "Printer Driver", REG_SZ, {'D', 'r'});
    SetRegistryText(kKeys + "Nameless", "Port", "LPT1:");
    EXPECT_EQ(driverOf("Front desk"), "Driver A");
    EXPECT_EQ(driverOf("\\\\server\\queue"), "Driver B");
    EXPECT_EQ(driverOf("\\\\server\\far"), "Driver C"); // has no key
    EXPECT_EQ(driverOf("Unterminated"), "Dr");
    EXPECT_EQ(driverOf("Nameless"), "(none)"); // a key that does not tell it: the spooler is not asked
    EXPECT_EQ(driverOf("Nowhere"), "(none)");
}

TEST(Registration, ModelsAreRegisteredWithTheirVariables) {
    InstallProduct();
    const Library library;
    const std::string models = "SOFTWARE\\Tavik\\Oriel\\Printers";
    EXPECT_FALSE(IsUnsupportedPrinter("Front desk")); // the spooler has no keys
    AddPrinter("Front desk", "Test Model");
    SetRegistryText(kKeys + "Nameless", "Port", "LPT1:");
    EXPECT_FALSE(IsUnsupportedPrinter("Nowhere"));
    EXPECT_TRUE(IsUnsupportedPrinter("Nameless"));
    EXPECT_TRUE(IsUnsupportedPrinter("Front desk")); // the product has no key of models
    SetRegistryText(models, "Version", "1");
    EXPECT_FALSE(IsUnsupportedPrinter("Front desk")); // it is empty
    SetRegistryText(models + "\\Another Model\\Status Variables", "X", "");
    SetRegistryText(models + "\\Test Model", "Only", "a value");
    EXPECT_TRUE(IsUnsupportedPrinter("Front desk")); // registered without variables
    SetRegistryText(models + "\\TEST model\\Status Variables", "X", "");
    EXPECT_FALSE(IsUnsupportedPrinter("Front desk"));
    AddPrinter("Back office", std::string(40, 'm'));
    SetRegistryText(models + "\\" + std::string(40, 'm') + "\\Status Variables", "X", "");
    EXPECT_TRUE(IsUnsupportedPrinter("Back office")); // its name is no model's: too long
}

TEST(Registration, ModelVariablesJoinAndReplaceTheBuiltInOnes) {
    InstallProduct();
    AddPrinter(kPrinter, kModel);
    const Library library;
    const Bytes eight(8, 0xAB);
    AddModelVariable(kModel, "Zeta", 4, 0x4, Number(9));
    AddModelVariable(kModel, "PrinterStatus", 8, 0x10020, eight);
    AddModelVariable(kModel, "Aardvark", 5, 0x10010, {1, 2, 3, 4, 5});
    AddModelVariable(kModel, "Queue", 6, 0x10080, {0xFF, 0xFF, 0xFF, 0xFF});
    AddModelVariable(kModel, "jobstatus", 4, 0x10004, Number(1)); // another name than "JobStatus"
    AddModelVariable(kModel, "Sum", 42, 0x10040, BytesOf("PrinterStatus;;Zeta;Queue;PrinterLocation"));
    AddModelVariable(kModel, "Lists", 53, 0x10040, BytesOf("Aardvark;PrinterQueue;PrinterFontInfo;CurrentStatus;"));
    AddModelVariable(kModel, "BadSum", 12, 0x10040, BytesOf("Zeta;Absent"));
    AddModelVariable(kModel, "NoSum", 4, 0x10040, {0, 0, 0, 0});
    // Skipped: another length than they say, too short, without a name, with one that nobody could ask for.
    AddModelVariable(kModel, "Long", 4, 0x4, eight);
    AddModelVariable(kModel, "Short", 8, 0x4, Number(1));
    AddModelVariable(kModel, "Tiny", 3, 0x20, {1, 2, 3});
    AddModelVariable(kModel, "LongQueue", 8, 0x80, eight);
    AddModelVariable(kModel, "", 4, 0x4, Number(1));
    AddModelVariable(kModel, std::string(256, 'n'), 4, 0x4, Number(1));
    AddModelVariable(kModel, std::string(255, 'n'), 4, 0x4, Number(1));
    SetRegistryValue("SOFTWARE\\Tavik\\Oriel\\Printers\\" + kModel + "\\Status Variables", "Empty", REG_BINARY, {});

    Record record;
    ASSERT_TRUE(BuildVariableIndex(&record.manager));
    for (uint32_t i = 1; i < record.manager.variableCount; ++i)
        EXPECT_LT(lstrcmpA(record.manager.variableIndex[i - 1]->name, record.manager.variableIndex[i]->name), 0);
    EXPECT_EQ(record.manager.variableCount, 57u + 9);
    for (const char* name : {"Long", "Short", "Tiny", "LongQueue", "Empty", ""})
        EXPECT_EQ(record.Find(name), nullptr) << name;
    EXPECT_NE(record.Find(std::string(255, 'n').c_str()), nullptr);

    struct Row {
        const char* name;
        uint32_t flags, size, timeout;
        Bytes value;
    };
    const Row rows[] = {
        {"Zeta", 0x01000004, 4, 0, Number(9)},
        {"PrinterStatus", 0x01010020, 8, 30000, eight}, // takes over the built-in row's time-out
        {"Aardvark", 0x01010010, 5, 0, Joined({Number(5), {1, 2, 3, 4, 5}})},
        {"Queue", 0x01010080, 6, 0, Joined({Number(4), Number(0)})},
        {"jobstatus", 0x01010004, 4, 0, Number(1)},
        {"Sum", 0x01010040, 8 + 4 + 6 + 260, 0, BytesOf("PrinterStatus;;Zeta;Queue;PrinterLocation")},
        {"Lists", 0x01010040, 5 + 0 + 8 + 20, 0, Text("Aardvark;")},
        {"BadSum", 0x01010040, 0, 0, BytesOf("Zeta;Absent")},
        {"NoSum", 0x01010040, 0, 0, {0, 0, 0, 0}},
        // Built-in ones follow their members; one that is absent keeps its share.
        {"CurrentStatus", 0x00010040, 20, 0, BytesOf("PrinterStatus;SpoolerStatus;ClientStatus;JobStatus;")},
        {"PrinterStatusEx", 0x00010040, 28, 0, Text("PrinterStatus;ErrPaperJam;")},
        {"PortEx", 0x00010040, 264, 0, BytesOf("PrinterExtStatus;Port;")},
    };
    for (const Row& row : rows) {
        const StatusVariableDef* found = record.Find(row.name);
        ASSERT_NE(found, nullptr) << row.name;
        EXPECT_EQ(found->flags, row.flags) << row.name;
        EXPECT_EQ(found->size, row.size) << row.name;
        EXPECT_EQ(found->timeoutMs, row.timeout) << row.name;
        EXPECT_EQ(std::memcmp(found->defaultValue, row.value.data(), row.value.size()), 0) << row.name;
    }
    EXPECT_EQ(CompositeSize(&record.manager, ""), 0u);

    Record nowhere("Nowhere");
    EXPECT_FALSE(BuildVariableIndex(&nowhere.manager));
}
