// Reading values and write times.
#include "machine.h"
#include "wide_literal.h"

#include <cstring>

namespace {

using Reading = Opened;

struct Expected {
    const char* variable;
    uint32_t size; // of the buffer; 0: none
    int32_t status;
    uint32_t returned;
    Bytes bytes; // the first ones; what follows must be untouched
};

void ExpectReads(TvsManager manager, const std::vector<Expected>& rows) {
    for (const Expected& row : rows) {
        SCOPED_TRACE(std::string(row.variable) + " into " + std::to_string(row.size));
        const ReadResult read = Read(manager, row.variable, row.size);
        EXPECT_EQ(read.status, row.status);
        EXPECT_EQ(read.returnedSize, row.returned);
        Bytes whole = row.bytes;
        whole.resize(row.size, 0xEE);
        EXPECT_EQ(read.bytes, whole);
    }
}

} // namespace

TEST_F(Reading, EachFormAnswersEveryBufferSize) {
    EXPECT_EQ(Update(manager, "PrinterStatus", Text("123456789012")), TVS_OK);
    EXPECT_EQ(Update(manager, "PrinterLocation", BytesOf("third floor")), TVS_OK);
    const Bytes queue = Joined({Number(1), Bytes(292, 'q')});
    EXPECT_EQ(Update(manager, "SpoolerQueue", queue), TVS_OK);
    ExpectReads(manager,
                {
                    // Numbers and records: no buffer, short, exact.
                    {"ModelNumber", 0, TVS_E_SIZE, 4, {}},
                    {"ModelNumber", 4, TVS_OK, 4, Number(7)},
                    {"PrinterStatus", 12, TVS_OK, 12, Text("123456789012")},
                    // Texts: up to their NUL; cut and terminated.
                    {"PrinterLocation", 0, TVS_E_SIZE, 260, {}},
                    {"PrinterLocation", 1, TVS_E_SIZE, 1, {0}},
                    {"PrinterLocation", 6, TVS_E_SIZE, 6, BytesOf("third")},
                    {"PrinterLocation", 12, TVS_OK, 12, BytesOf("third floor")},
                    {"PrinterModel", 1, TVS_OK, 1, {0}},
                    {"S", 4, TVS_OK, 4, Text("abcd")},
                    {"S", 3, TVS_E_SIZE, 3, BytesOf("ab")},
                    // Variable-length values: the payload.
                    {"SpoolerQueue", 0, TVS_E_SIZE, 296, {}},
                    {"SpoolerQueue", 296, TVS_OK, 296, queue},
                    {"PrinterQueue", 100, TVS_OK, 4, Number(0)},
                    {"B", 4, TVS_OK, 4, Number(1)},
                    {"V", 5, TVS_OK, 5, Text("hello")},
                    {"PrinterFontInfo", 8, TVS_OK, 8, Joined({Number(1), Number(2773)})},
                    // Composites: their members one behind the other; one that does not exist contributes nothing.
                    {"CurrentStatus", 24, TVS_OK, 24, Joined({Text("123456789012"), Bytes(12)})},
                    {"Mix", 8, TVS_OK, 8, Joined({Number(7), Text("abcd")})},
                    // What is not there, or not for reading.
                    {"AccessControlList", 8, TVS_E_UNKNOWN, 0, {}},
                    {"Hidden", 8, TVS_E_UNKNOWN, 0, {}},
                    {"modelnumber", 8, TVS_E_UNKNOWN, 0, {}},
                    {"", 8, TVS_E_UNKNOWN, 0, {}},
                });
    // A value shorter than its length is empty.
    StoreBytes(database, "V", {1, 2});
    ExpectReads(manager, {{"V", 8, TVS_OK, 0, {}}, {"V", 0, TVS_E_SIZE, 0, {}}});
    // A buffer that is not there has no size.
    uint32_t returned = 5;
    EXPECT_EQ(GetPrinterStatusA(manager, "ModelNumber", nullptr, 4, &returned), TVS_E_SIZE);
    EXPECT_EQ(returned, 4u);
    EXPECT_EQ(Read(manager + 8, "ModelNumber", 4).status, TVS_E_HANDLE);
    EXPECT_EQ(Read(0, "ModelNumber", 4).returnedSize, 0u);
}

TEST_F(Reading, CompositesFollowTheSizesOfTheirMembersInEachFormOfTheCall) {
    const std::string other = "Other printer";
    AddPrinter(other, other);
    AddModelVariable(other, "PrinterStatus", 16, 0x10020, Bytes(16, 's'));
    AddModelVariable(other, "ErrNSMError", 6, 0x10020, Bytes(6, 'n'));
    AddModelVariable(other, "L", 4, 0x10110, Text("abcd")); // begins with a copy of another length
    SetRegistryValue(kPrinterKeys + other + "\\PrinterDriverData", "SQD_L", REG_BINARY, Text("x"));
    AddModelVariable(other, "Mix", 32, 0x10040, BytesOf("L;PrinterQueue;PrinterStatus;L;"));
    manager = OpenPrinter(2, other);
    ASSERT_EQ(Update(manager, "PrinterStatus", Text("12345678")), TVS_OK); // half of its field
    const Bytes status = Joined({Text("12345678"), Bytes(8)});
    const Bytes copy = Joined({Text("x"), Bytes(3)});
    ExpectReads(manager, {{"Mix", 24, TVS_OK, 24, Joined({copy, status, copy})}, {"L", 1, TVS_OK, 1, Text("x")}});
    ASSERT_EQ(Update(manager, "L", Text("longer")), TVS_OK);
    const std::vector<Expected> rows = {
        {"CurrentStatus", 0, TVS_E_SIZE, 28, {}},
        {"CurrentStatus", 28, TVS_OK, 28, Joined({status, Bytes(12)})},
        {"PrinterStatusEx", 38, TVS_OK, 38, Joined({status, Bytes(16, 0xFF), Bytes(6, 'n')})},
        {"Mix", 0, TVS_E_SIZE, 24, {}},
        {"Mix", 24, TVS_OK, 24, Joined({Text("long"), status, Text("long")})},
    };
    ExpectReads(manager, rows);
    for (const Expected& row : rows) {
        SCOPED_TRACE(row.variable);
        EXPECT_EQ(Read(manager, row.variable, row.size, GetPrinterStatusDirectA).bytes, row.bytes);
        const WideString name(row.variable, row.variable + std::strlen(row.variable));
        Bytes wide(row.size);
        uint32_t returned = 0;
        EXPECT_EQ(GetPrinterStatusW(manager, name.c_str(), wide.data(), row.size, &returned), row.status);
        EXPECT_EQ(returned, row.returned);
        EXPECT_EQ(wide, row.bytes);
    }
}

TEST_F(Reading, AQueueGivesItsOldestItemOnce) {
    // The service has no such variable: its answer is passed on, and nothing is taken for a value.
    const Answer unknown = static_cast<Answer>(product::kUnknownVariable);
    ExpectReads(manager, {{"Q", 8, PassOn(unknown), 0, {}}, {"Q", 0, PassOn(unknown), 0, {}}});

    const Bytes empty = Joined({Number(4), Number(0)});
    ASSERT_EQ(CreateVariable(database, "Q", product::kTypeVariableLength, 8, empty.data()), Answer::Done);
    ExpectReads(manager, {{"Q", 8, TVS_OK, 0, {}}, {"Q", 0, TVS_OK, 0, {}}});
    StoreBytes(database, "Q", Joined({Number(28), Number(3), Text("item one"), Text("item two"), Text("itemlast")}));
    ExpectReads(manager, {{"Q", 0, TVS_E_SIZE, 8, {}},
                          {"Q", 100, TVS_OK, 8, Text("item one")},
                          {"Q", 2, TVS_E_SIZE, 2, Text("it")}}); // the rest of the second one is gone
    EXPECT_EQ(StoredBytes(database, "Q"), Joined({Number(12), Number(1), Text("itemlast")}));
    ExpectReads(manager, {{"Q", 8, TVS_OK, 8, Text("itemlast")}, {"Q", 8, TVS_OK, 0, {}}});
    EXPECT_EQ(StoredBytes(database, "Q"), empty);
    // What another process left there is believed as far as its bytes go.
    StoreBytes(database, "Q", Joined({Number(1), Bytes(2)}));
    ExpectReads(manager, {{"Q", 8, TVS_OK, 0, {}}});
    StoreBytes(database, "Q", Joined({Number(0xFFFFFFFF), Number(0xFFFFFFFF), Text("only one"), Text("half")}));
    ExpectReads(manager, {{"Q", 8, TVS_OK, 8, Text("only one")}, {"Q", 8, TVS_OK, 0, {}}});
}

TEST_F(Reading, WithoutTheServiceItsAnswerIsPassedOn) {
    KillService();
    SYSTEMTIME time = {};
    const ReadResult number = Read(manager, "ModelNumber", 4);
    EXPECT_GT(number.status, 0);
    EXPECT_EQ(number.returnedSize, 4u);
    EXPECT_EQ(number.bytes, Number(0));
    // Once it is known that there is none, that is what is told.
    ExpectReads(manager, {{"ModelNumber", 4, RPC_S_SERVER_UNAVAILABLE, 4, Number(0)},
                          {"PrinterLocation", 9, RPC_S_SERVER_UNAVAILABLE, 1, {0}},
                          {"SpoolerQueue", 0, RPC_S_SERVER_UNAVAILABLE, 0, {}}});
    EXPECT_EQ(GetPrinterStatusInfoA(manager, "ModelNumber", &time), TVS_E_UNKNOWN);
    EXPECT_EQ(Update(manager, "ModelNumber", Number(1)), RPC_S_SERVER_UNAVAILABLE);
}

TEST_F(Reading, WriteTimesFollowTheWrites) {
    SYSTEMTIME before;
    SYSTEMTIME time;
    SYSTEMTIME after;
    const auto ticks = [](const SYSTEMTIME& of) {
        FILETIME file;
        EXPECT_TRUE(SystemTimeToFileTime(&of, &file));
        return uint64_t{file.dwHighDateTime} << 32 | file.dwLowDateTime;
    };
    // No two write times are the same, so one right after the creation may be ahead of the clock.
    ASSERT_EQ(GetPrinterStatusInfoA(manager, "JobStatus", &time), TVS_OK);
    ASSERT_TRUE(WaitUntil([&] {
        GetSystemTime(&before);
        return ticks(before) > ticks(time);
    }));
    EXPECT_EQ(Update(manager, "JobStatus", Number(2)), TVS_OK);
    EXPECT_EQ(GetPrinterStatusInfoW(manager, WIDE("JobStatus"), &time), TVS_OK);
    GetSystemTime(&after);
    EXPECT_LE(ticks(before), ticks(time));
    EXPECT_LE(ticks(time), ticks(after));
    for (const char* name : {"AccessControlList", "Hidden", "CurrentStatus"}) // readable or not
        EXPECT_EQ(GetPrinterStatusInfoA(manager, name, &time), TVS_OK) << name;
    EXPECT_LE(ticks(time), ticks(after));
    EXPECT_EQ(GetPrinterStatusInfoA(manager, "Nothing", &time), TVS_E_UNKNOWN);
    EXPECT_EQ(GetPrinterStatusInfoA(manager, "Q", &time), TVS_E_UNKNOWN); // the service has none
    EXPECT_EQ(GetPrinterStatusInfoW(manager + 8, WIDE("JobStatus"), &time), TVS_E_HANDLE);
}
