// Updates, the copies in the driver data, the reset on a port change, and the results of write requests.
#include "machine.h"
#include "manager/variable_index.h"
#include "product/client.h"
#include "values/database_creation.h"
#include "values/updating.h"

#include <cstring>

namespace {

const std::string kDataKey = "System\\CurrentControlSet\\Control\\Print\\Printers\\" + kPrinter + "\\PrinterDriverData";

Bytes Copy(const std::string& variable) {
    return RegistryValue(kDataKey, "SQD_" + variable);
}

DWORD CopyType(const std::string& variable) {
    HKEY key = nullptr;
    DWORD type = REG_NONE;
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, kDataKey.c_str(), 0, KEY_READ, &key), ERROR_SUCCESS);
    RegQueryValueExA(key, ("SQD_" + variable).c_str(), nullptr, &type, nullptr, nullptr);
    RegCloseKey(key);
    return type;
}

uint64_t DriverDataWritten() {
    HKEY key = nullptr;
    FILETIME time = {};
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, kDataKey.c_str(), 0, KEY_READ, &key), ERROR_SUCCESS);
    RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                     &time);
    RegCloseKey(key);
    return uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

Bytes Stored(TvsManager manager, const char* variable) {
    Bytes value(1024);
    DWORD size = 0;
    EXPECT_EQ(ReadVariable(RecordOf(manager)->printerDatabase, variable, value.data(), 1024, &size), Answer::Done)
        << variable;
    value.resize(size);
    return value;
}

// One persistent variable of each type.
void AddPersistentVariables() {
    AddModelVariable(kModel, "PByte", 4, 0x10101, Number(1)); // 4 bytes wide as it is registered
    AddModelVariable(kModel, "PNumber", 4, 0x10104, Number(2));
    AddModelVariable(kModel, "PString", 16, 0x10108, Text("initial text...."));
    AddModelVariable(kModel, "PVariable", 4, 0x10910, Text("vvvv"));
    AddModelVariable(kModel, "PRecord", 6, 0x10920, Text("record"));
}

} // namespace

TEST(Updating, ValuesAreStoredInTheFormOfTheirType) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    struct Row {
        const char* variable;
        Bytes data;
        int32_t status;
        Bytes stored;
    };
    const int32_t wrongSize = PassOn(Answer::WrongSize);
    const Bytes whole = Joined({Bytes(12, 'w'), Number(1), Number(2), Number(5)});
    const Row rows[] = {
        {"JobStatus", Number(5), TVS_OK, Number(5)},
        {"JobStatus", {1, 2}, wrongSize, Number(5)},
        {"ModelNumber", Number(8), TVS_OK, Number(8)}, // neither flag of direct writes is asked for
        {"PrinterLocation", Text("fifth"), TVS_OK, BytesOf("fift")},
        {"PrinterLocation", BytesOf("fifth"), TVS_OK, BytesOf("fifth")},
        {"PrinterLocation", Bytes(261, 'x'), wrongSize, BytesOf("fifth")},
        {"PrinterStatus", Text("abc"), TVS_OK, Text("abc")},
        {"AccessControlList", Text("list"), TVS_OK, Joined({Number(4), Text("list")})},
        {"AccessControlList", {}, TVS_OK, Number(0)},
        {"AccessControlList", Bytes(600, 'L'), TVS_OK, Joined({Number(600), Bytes(600, 'L')})},
        {"CurrentStatus", Bytes(23), wrongSize, Joined({Text("abc"), Bytes(9), Number(0), Number(0), Number(5)})},
        {"CurrentStatus", whole, TVS_OK, whole},
        {"PrinterStatus", Text("d"), TVS_OK, Text("d")},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.variable) + " with " + std::to_string(row.data.size()) + " bytes");
        EXPECT_EQ(Update(manager, row.variable, row.data), row.status);
        EXPECT_EQ(Stored(manager, row.variable), row.stored);
    }
    EXPECT_EQ(Update(manager, "Nothing", Number(1)), TVS_E_UNKNOWN);
    EXPECT_EQ(Update(manager + 8, "JobStatus", Number(1)), TVS_E_HANDLE);
    EXPECT_EQ(UpdatePrinterStatusA(manager, "JobStatus", "", 0xFFFFFFFF), wrongSize);
    EXPECT_EQ(UpdatePrinterStatusA(manager, "JobStatus", nullptr, 4), TVS_E_FAULT);
    EXPECT_EQ(NumberOf(manager, "JobStatus"), 5u);
}

TEST(Updating, PersistentVariablesKeepACopyThatOutlivesTheService) {
    Product product;
    AddPersistentVariables();
    const Bytes data = Text("0123456789");
    {
        const TvsManager manager = OpenPrinter();
        struct Row {
            const char* variable;
            Bytes data;
            DWORD type;
            Bytes copy;
        };
        const Row rows[] = {
            {"PNumber", Number(77), REG_DWORD, Number(77)},
            {"PByte", Number(0x11223344), REG_DWORD, {0x44}},
            {"PString", Text("text!"), REG_SZ, BytesOf("text")},
            {"PVariable", data, REG_BINARY, data},
            {"PRecord", Text("RECORD"), REG_BINARY, Text("RECORD")},
            {"PageCount", Number(1234), REG_DWORD, Number(1234)},
            {"PrinterFontInfo", Text("fonts"), REG_BINARY, Text("fonts")},
        };
        for (const Row& row : rows) {
            EXPECT_EQ(Update(manager, row.variable, row.data), TVS_OK) << row.variable;
            EXPECT_EQ(Copy(row.variable), row.copy) << row.variable;
            EXPECT_EQ(CopyType(row.variable), row.type) << row.variable;
        }
        EXPECT_EQ(Update(manager, "JobStatus", Number(3)), TVS_OK);
        EXPECT_EQ(Copy("JobStatus"), Bytes()); // not persistent

        // The value that is there already leaves the registry alone; another does not.
        const uint64_t written = DriverDataWritten();
        EXPECT_EQ(Update(manager, "PVariable", data), TVS_OK);
        EXPECT_EQ(Update(manager, "PString", BytesOf("text")), TVS_OK);
        EXPECT_EQ(DriverDataWritten(), written);
        EXPECT_EQ(Update(manager, "PRecord", Text("again!")), TVS_OK);
        EXPECT_GT(DriverDataWritten(), written);
        // A copy follows the printer's name, and is made even when the service takes nothing.
        EXPECT_EQ(CloseManager(manager), TVS_OK);
    }
    product.service.process.Kill();
    const Service restarted;
    const TvsManager manager = OpenPrinter();
    EXPECT_EQ(NumberOf(manager, "PNumber"), 77u);
    EXPECT_EQ(NumberOf(manager, "PageCount"), 1234u);
    EXPECT_EQ(NumberOf(manager, "JobStatus"), 0u);
    EXPECT_EQ(Stored(manager, "PVariable"), Joined({Number(10), data}));
    EXPECT_EQ(Stored(manager, "PRecord"), Text("again!"));
    EXPECT_EQ(Stored(manager, "PrinterFontInfo"), Joined({Number(5), Text("fonts")})); // instead of the built one
    // A text has the whole of its field again.
    EXPECT_EQ(Read(manager, "PString", 16).returnedSize, 5u);
    EXPECT_EQ(Update(manager, "PString", Text("as long as it is")), TVS_OK);
}

TEST(Updating, CopiesThatDoNotFitTheirVariableAreNotTaken) {
    const Product product;
    AddPersistentVariables();
    for (const char* name : {"PNumber", "PByte"})
        SetRegistryValue(kDataKey, std::string("SQD_") + name, REG_DWORD, {1, 2});
    SetRegistryValue(kDataKey, "SQD_PString", REG_SZ, Bytes(17, 'x'));
    SetRegistryValue(kDataKey, "SQD_PRecord", REG_BINARY, Bytes(7, 'x'));
    SetRegistryValue(kDataKey, "SQD_PVariable", REG_BINARY, Bytes(1020, 'x'));
    SetRegistryValue(kDataKey, "SQD_PageCount", REG_DWORD, {});
    const TvsManager manager = OpenPrinter();
    EXPECT_EQ(NumberOf(manager, "PNumber"), 2u);
    EXPECT_EQ(NumberOf(manager, "PByte"), 1u);
    EXPECT_EQ(Stored(manager, "PString"), Text("initial text...."));
    EXPECT_EQ(Stored(manager, "PRecord"), Text("record"));
    EXPECT_EQ(Stored(manager, "PVariable"), Joined({Number(4), Text("vvvv")}));
    EXPECT_EQ(NumberOf(manager, "PageCount"), 0xFFFFFFFFu);
    // The mailboxes and the built values of a fresh database.
    const Bytes empty = Joined({Number(4), Number(0)});
    EXPECT_EQ(Stored(manager, "NotifyMsg"), empty);
    EXPECT_EQ(Stored(manager, "ReqResult"), empty);
    EXPECT_EQ(Stored(manager, "AccessControlList"), empty);
    EXPECT_EQ(Stored(manager, "RequestMsg"), Bytes(364));
    EXPECT_EQ(Stored(manager, "PrinterOptConfig"),
              Joined({Number(16), Number(1), Number(2001 | 2001 << 16), Number(0)}));
    Bytes name = BytesOf(kPrinter);
    name.resize(260);
    EXPECT_EQ(Stored(manager, "PrinterName"), name);
}

TEST(Updating, TheCopyLiesUnderTheNameThatThePrinterHasNow) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    AddPrinter("Renamed", kModel);
    Bytes name = BytesOf("Renamed");
    name.resize(260);
    EXPECT_EQ(WriteVariable(RecordOf(manager)->printerDatabase, "PrinterName", name.data(), 260), Answer::Done);
    EXPECT_EQ(Update(manager, "LMStatus", Number(6)), TVS_OK);
    EXPECT_EQ(RegistryValue("System\\CurrentControlSet\\Control\\Print\\Printers\\Renamed\\PrinterDriverData",
                            "SQD_LMStatus"),
              Number(6));
    EXPECT_EQ(Copy("LMStatus"), Bytes());
    EXPECT_STREQ(CurrentPrinterName(RecordOf(manager)).text, "Renamed");
    // A name that is none is not taken over.
    EXPECT_EQ(WriteVariable(RecordOf(manager)->printerDatabase, "PrinterName", Bytes(260, 'x').data(), 260),
              Answer::Done);
    EXPECT_EQ(Update(manager, "LMStatus", Number(7)), TVS_OK);
    EXPECT_STREQ(CurrentPrinterName(RecordOf(manager)).text, "Renamed");
}

TEST(Updating, APortChangeResetsWhatDependsOnThePort) {
    const Product product;
    AddPersistentVariables();
    const TvsManager manager = OpenPrinter();
    for (const char* name : {"PrinterBinConfig", "PVariable", "PString"})
        EXPECT_EQ(Update(manager, name, Text("changed")), TVS_OK);
    EXPECT_EQ(Update(manager, "PRecord", Text("abcdef")), TVS_OK);
    ResetPortDependentVariables(RecordOf(manager));
    EXPECT_EQ(Stored(manager, "PrinterBinConfig").size(), 68u);
    EXPECT_EQ(Copy("PrinterBinConfig").size(), 64u);
    EXPECT_EQ(Stored(manager, "PVariable"), Joined({Number(4), Text("vvvv")}));
    EXPECT_EQ(Copy("PVariable"), Text("vvvv"));
    EXPECT_EQ(Copy("PRecord"), Text("record"));
    EXPECT_EQ(Stored(manager, "PString"), BytesOf("change")); // has not the flag
}

TEST(Updating, HandlersTakeTheWriteInPlaceOfTheDatabase) {
    const Product product;
    ManagerRecord* record = RecordOf(OpenPrinter());
    static Bytes taken;
    StatusVariableDef row = *FindStatusVariable(record, "SetJob");
    row.localWrite = [](ManagerRecord*, const void* data, uint32_t size) -> int32_t {
        const auto* bytes = static_cast<const uint8_t*>(data);
        taken.assign(bytes, bytes + size);
        return TVS_E_NOT_NOW;
    };
    for (uint32_t i = 0; i < record->variableCount; ++i)
        if (std::strcmp(record->variableIndex[i]->name, "SetJob") == 0) record->variableIndex[i] = &row;
    EXPECT_EQ(Update(HandleOf(record), "SetJob", Number(2)), TVS_E_NOT_NOW);
    EXPECT_EQ(taken, Number(2));
    EXPECT_EQ(NumberOf(HandleOf(record), "SetJob"), 0xFFFFFFFFu);
}

TEST(RequestResults, EachIsGivenOnce) {
    Product product;
    const TvsManager manager = OpenPrinter();
    const auto result = [&](uint32_t id) {
        int32_t value = 1;
        EXPECT_EQ(ResSetPrinterStatus(manager, id, &value), TVS_OK);
        return value;
    };
    const auto store = [&](const Bytes& list) {
        EXPECT_EQ(WriteVariable(RecordOf(manager)->printerDatabase, "ReqResult", list.data(),
                                static_cast<DWORD>(list.size())),
                  Answer::Done);
    };
    const auto entry = [](uint32_t id, int32_t value) {
        return Joined({Number(id), Number(static_cast<uint32_t>(value))});
    };
    EXPECT_EQ(result(1), TVS_E_UNKNOWN);
    store(Joined({Number(4 + 32), Number(4), entry(1, -50), entry(2, 0), entry(1, -38), entry(3, 1722)}));
    EXPECT_EQ(result(2), 0);
    EXPECT_EQ(result(2), TVS_E_UNKNOWN);
    EXPECT_EQ(Stored(manager, "ReqResult"),
              Joined({Number(28), Number(3), entry(1, -50), entry(1, -38), entry(3, 1722)}));
    EXPECT_EQ(result(1), -50); // the oldest of them
    EXPECT_EQ(result(3), 1722);
    EXPECT_EQ(result(1), -38);
    EXPECT_EQ(Stored(manager, "ReqResult"), Joined({Number(4), Number(0)}));
    // Lists that promise more than they hold.
    store(Joined({Number(0xFFFFFFFF), Number(0xFFFFFFFF), entry(9, -1), {1, 0}}));
    EXPECT_EQ(result(10), TVS_E_UNKNOWN);
    EXPECT_EQ(result(9), -1);
    store({1});
    EXPECT_EQ(result(9), TVS_E_UNKNOWN);
    int32_t value = 1;
    EXPECT_EQ(ResSetPrinterStatus(manager + 8, 1, &value), TVS_E_HANDLE);
    EXPECT_EQ(value, 1);
    product.service.process.Kill();
    EXPECT_EQ(result(1), TVS_E_UNKNOWN);
}
