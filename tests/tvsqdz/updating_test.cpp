// Updates, their copies in the driver data, and the results of write requests.
#include "machine.h"
#include "values/updating.h"

namespace {

using Updating = Opened;
using RequestResults = Opened;

Bytes Copy(const std::string& variable, DWORD* type = nullptr) {
    return RegistryValue(kDriverData, "SQD_" + variable, type);
}

} // namespace

TEST_F(Updating, ValuesAreStoredInTheFormOfTheirType) {
    const int32_t wrongSize = PassOn(Answer::WrongSize);
    const Bytes whole = Joined({Bytes(12, 'w'), Number(1), Number(2), Number(5)});
    const std::tuple<const char*, Bytes, int32_t, Bytes> rows[] = {
        {"JobStatus", Number(5), TVS_OK, Number(5)},
        {"JobStatus", {1, 2}, wrongSize, Number(5)},
        {"ModelNumber", Number(8), TVS_OK, Number(8)}, // neither flag of direct writes is asked for
        {"PrinterLocation", Text("fifth"), TVS_OK, BytesOf("fift")},
        {"PrinterLocation", Bytes(261, 'x'), wrongSize, BytesOf("fift")},
        {"PrinterStatus", Text("abc"), TVS_OK, Text("abc")},
        {"AccessControlList", Text("list"), TVS_OK, Joined({Number(4), Text("list")})},
        {"AccessControlList", {}, TVS_OK, Number(0)},
        {"AccessControlList", Bytes(600, 'L'), TVS_OK, Joined({Number(600), Bytes(600, 'L')})},
        {"CurrentStatus", Bytes(23), wrongSize, Joined({Text("abc"), Bytes(9), Number(0), Number(0), Number(5)})},
        {"CurrentStatus", whole, TVS_OK, whole},
    };
    for (const auto& [variable, data, status, stored] : rows) {
        SCOPED_TRACE(std::string(variable) + " with " + std::to_string(data.size()) + " bytes");
        EXPECT_EQ(Update(manager, variable, data), status);
        EXPECT_EQ(StoredBytes(database, variable), stored);
    }
    EXPECT_EQ(Update(manager, "Nothing", Number(1)), TVS_E_UNKNOWN);
    EXPECT_EQ(Update(manager + 8, "JobStatus", Number(1)), TVS_E_HANDLE);
    EXPECT_EQ(UpdatePrinterStatusA(manager, "JobStatus", "", 0xFFFFFFFF), wrongSize);
    EXPECT_EQ(UpdatePrinterStatusA(manager, "JobStatus", nullptr, 4), TVS_E_FAULT);
    EXPECT_EQ(NumberOf(manager, "JobStatus"), 5u);
}

TEST_F(Updating, PersistentVariablesKeepACopyThatOutlivesTheService) {
    const Bytes data = Text("0123456789");
    const std::tuple<const char*, Bytes, DWORD, Bytes> rows[] = {
        {"PNumber", Number(77), REG_DWORD, Number(77)},
        {"PString", Text("text!"), REG_SZ, BytesOf("text")},
        {"PVariable", data, REG_BINARY, data},
        {"PageCount", Number(1234), REG_DWORD, Number(1234)},
    };
    for (const auto& [variable, written, kind, copy] : rows) {
        EXPECT_EQ(Update(manager, variable, written), TVS_OK) << variable;
        DWORD type = REG_NONE;
        EXPECT_EQ(Copy(variable, &type), copy) << variable;
        EXPECT_EQ(type, kind) << variable;
    }
    EXPECT_EQ(Update(manager, "JobStatus", Number(3)), TVS_OK);
    EXPECT_EQ(Copy("JobStatus"), Bytes()); // not persistent
    EXPECT_EQ(Update(manager, "PRecord", Text("again!")), TVS_OK);
    EXPECT_EQ(Copy("PRecord"), Text("again!"));
    EXPECT_EQ(CloseManager(manager), TVS_OK);

    RestartService();
    manager = OpenPrinter();
    database = RecordOf(manager)->printerDatabase.handle;
    EXPECT_EQ(NumberOf(manager, "PNumber"), 77u);
    EXPECT_EQ(NumberOf(manager, "PageCount"), 1234u);
    EXPECT_EQ(NumberOf(manager, "JobStatus"), 0u);
    EXPECT_EQ(StoredBytes(database, "PVariable"), Joined({Number(10), data}));
    // A text has the whole of its field again.
    EXPECT_EQ(Update(manager, "PString", Text("as long as it is")), TVS_OK);
}

TEST_F(Updating, CopiesThatDoNotFitTheirVariableAreNotTaken) {
    EXPECT_EQ(CloseManager(manager), TVS_OK);
    const struct {
        const char* variable;
        DWORD type;
        Bytes copy;
        Bytes stored;
    } rows[] = {
        {"PNumber", REG_DWORD, {1, 2}, Number(2)},
        {"PVariable", REG_BINARY, Bytes(1020, 'x'), Joined({Number(4), Text("vvvv")})},
        {"PageCount", REG_DWORD, {}, Number(0xFFFFFFFF)},
    };
    for (const auto& row : rows)
        SetRegistryValue(kDriverData, std::string("SQD_") + row.variable, row.type, row.copy);
    RestartService();
    database = RecordOf(OpenPrinter())->printerDatabase.handle;
    for (const auto& row : rows)
        EXPECT_EQ(StoredBytes(database, row.variable), row.stored) << row.variable;
    // The mailboxes and the built values of a fresh database.
    for (const char* list : {"NotifyMsg", "ReqResult", "AccessControlList"})
        EXPECT_EQ(StoredBytes(database, list), Joined({Number(4), Number(0)})) << list;
    EXPECT_EQ(StoredBytes(database, "RequestMsg"), Bytes(364));
    EXPECT_EQ(StoredBytes(database, "PrinterOptConfig"),
              Joined({Number(16), Number(1), Number(2001 | 2001 << 16), Number(0)}));
}

TEST_F(Updating, TheCopyLiesUnderTheNameThatThePrinterHasNow) {
    AddPrinter("Renamed", kModel);
    StoreBytes(database, "PrinterName", BytesOf("Renamed"));
    EXPECT_EQ(Update(manager, "LMStatus", Number(6)), TVS_OK);
    EXPECT_EQ(RegistryValue(kPrinterKeys + "Renamed\\PrinterDriverData", "SQD_LMStatus"), Number(6));
}

TEST_F(RequestResults, EachIsGivenOnce) {
    const auto store = [&](uint32_t count, const Bytes& entries) {
        StoreBytes(database, "ReqResult", Joined({Number(4 + 8 * count), Number(count), entries}));
    };
    store(3, Joined({Number(1), Number(50), Number(2), Number(0), Number(1), Number(38)}));
    EXPECT_EQ(ResultOf(manager, 2), 0);
    EXPECT_EQ(ResultOf(manager, 2), TVS_E_UNKNOWN);
    EXPECT_EQ(StoredBytes(database, "ReqResult"),
              Joined({Number(20), Number(2), Number(1), Number(50), Number(1), Number(38)}));
    EXPECT_EQ(ResultOf(manager, 1), 50); // the oldest of them
    EXPECT_EQ(ResultOf(manager, 1), 38);
    EXPECT_EQ(StoredBytes(database, "ReqResult"), Joined({Number(4), Number(0)}));
    // Lists that promise more than they hold.
    store(0xFFFFFFFF, Joined({Number(9), Number(1), {1, 0}}));
    EXPECT_EQ(ResultOf(manager, 10), TVS_E_UNKNOWN);
    EXPECT_EQ(ResultOf(manager, 9), 1);
    StoreBytes(database, "ReqResult", {1});
    EXPECT_EQ(ResultOf(manager, 9), TVS_E_UNKNOWN);
    int32_t value = 1;
    EXPECT_EQ(ResSetPrinterStatus(manager + 8, 1, &value), TVS_E_HANDLE);
    EXPECT_EQ(value, 1);
    KillService();
    EXPECT_EQ(ResultOf(manager, 1), TVS_E_UNKNOWN);
}
