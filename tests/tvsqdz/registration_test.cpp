// What the registry and the spooler know of a printer: driver, model, and the variables that the model defines.
#include "machine.h"
#include "manager/printer_registration.h"
#include "manager/variable_index.h"
#include "manager/variables.h"
#include "product/name_order.h"

#include <cstring>

namespace {

const std::string kModels = "SOFTWARE\\Tavik\\Oriel\\Printers";

// With a record as an open has it before it asks what the printer's variables are.
struct Registration : testing::Test {
    Registration() { std::strcpy(record.printerName, kPrinter.c_str()); }
    struct Installed {
        Installed() { InstallProduct(); }
    } installed;
    Library library;
    ManagerRecord record = {};
};

} // namespace

TEST_F(Registration, DriverComesFromTheKeyOrElseFromTheSpooler) {
    const auto driverOf = [&](const std::string& printer) -> std::string {
        record.driverName = nullptr;
        std::strcpy(record.printerName, printer.c_str());
        return LookUpDriverName(&record) ? record.driverName : "(none)";
    };
    EXPECT_STREQ(PrinterKeyName("\\\\server\\queue\\").name, ",,server,queue,");
    AddPrinter("Front desk", "Driver A");
    AddToSpooler("\\\\server\\far", "Driver C");
    SetRegistryText(kPrinterKeys + "Nameless", "Port", "LPT1:");
    EXPECT_EQ(driverOf("Front desk"), "Driver A");
    EXPECT_EQ(driverOf("\\\\server\\far"), "Driver C"); // has no key
    EXPECT_EQ(driverOf("Nameless"), "(none)");          // a key that does not tell it: the spooler is not asked
    EXPECT_EQ(driverOf("Nowhere"), "(none)");
}

TEST_F(Registration, ModelVariablesJoinAndReplaceTheBuiltInOnes) {
    AddPrinter(kPrinter, kModel);
    const Bytes eight(8, 0xAB);
    AddModelVariable(kModel, "Zeta", 4, 0x4, Number(9));
    AddModelVariable(kModel, "PrinterStatus", 8, 0x10020, eight);
    AddModelVariable(kModel, "Aardvark", 5, 0x10010, {1, 2, 3, 4, 5});
    AddModelVariable(kModel, "Queue", 6, 0x10080, {0xFF, 0xFF, 0xFF, 0xFF});
    AddModelVariable(kModel, "Sum", 42, 0x10040, BytesOf("PrinterStatus;;Zeta;Queue;PrinterLocation"));
    AddModelVariable(kModel, "Lists", 53, 0x10040, BytesOf("Aardvark;PrinterQueue;PrinterFontInfo;CurrentStatus;"));
    // Skipped: another length than they say, too short, without a name, with one that nobody could ask for.
    AddModelVariable(kModel, "Long", 4, 0x4, eight);
    AddModelVariable(kModel, "Short", 8, 0x4, Number(1));
    AddModelVariable(kModel, "", 4, 0x4, Number(1));
    AddModelVariable(kModel, std::string(256, 'n'), 4, 0x4, Number(1));
    AddModelVariable(kModel, std::string(255, 'n'), 4, 0x4, Number(1));

    ASSERT_TRUE(BuildVariableIndex(&record));
    EXPECT_EQ(record.variableCount, 57u + 6);
    // Each is found, by its name alone; the table's order is that of the platform.
    for (uint32_t i = 0; i < record.variableCount; ++i) {
        EXPECT_EQ(FindStatusVariable(&record, record.variableIndex[i]->name), record.variableIndex[i]);
        for (uint32_t j = 0; j < i; ++j) {
            EXPECT_LT(lstrcmpA(record.variableIndex[j]->name, record.variableIndex[i]->name), 0);
            EXPECT_LT(CompareNames(record.variableIndex[j]->name, record.variableIndex[i]->name), 0);
        }
    }
    for (const char* name : {"Long", "Short", "", "jobstatus", "A", "PrinterStatusX", "PrinterStatu", "\xff"})
        EXPECT_EQ(FindStatusVariable(&record, name), nullptr) << name;
    const std::tuple<const char*, uint32_t, uint32_t, uint32_t, Bytes> rows[] = {
        {"Zeta", 0x01000004, 4, 0, Number(9)},
        {"PrinterStatus", 0x01010020, 8, 30000, eight}, // takes over the built-in row's time-out
        {"Aardvark", 0x01010010, 5, 0, Joined({Number(5), {1, 2, 3, 4, 5}})},
        {"Queue", 0x01010080, 6, 0, Joined({Number(4), Number(0)})},
        {"Sum", 0x01010040, 8 + 4 + 6 + 260, 0, BytesOf("PrinterStatus;;Zeta;Queue;PrinterLocation")},
        {"Lists", 0x01010040, 5 + 0 + 8 + 20, 0, Text("Aardvark;")},
        // Built-in ones follow their members; one that is absent keeps its share.
        {"CurrentStatus", 0x00010040, 20, 0, BytesOf("PrinterStatus;SpoolerStatus;ClientStatus;JobStatus;")},
        {"PrinterStatusEx", 0x00010040, 28, 0, Text("PrinterStatus;ErrPaperJam;")},
    };
    for (const auto& [name, flags, size, timeout, value] : rows) {
        const StatusVariableDef* found = FindStatusVariable(&record, name);
        ASSERT_NE(found, nullptr) << name;
        EXPECT_EQ(found->flags, flags) << name;
        EXPECT_EQ(found->size, size) << name;
        EXPECT_EQ(found->timeoutMs, timeout) << name;
        EXPECT_EQ(std::memcmp(found->defaultValue, value.data(), value.size()), 0) << name;
    }
}
