// The built-in table, its order, and the look-up.
#include "catalogue/built_values.h"
#include "catalogue/name_order.h"
#include "catalogue/variable_lookup.h"
#include "catalogue/variable_table.h"
#include "machine.h"

#include <cstring>

namespace {

struct Index {
    Index() {
        for (uint32_t i = 0; i < CountStatusVariables(); ++i)
            rows.push_back(&kStatusVariables[i]);
        manager.variableIndex = rows.data();
        manager.variableCount = static_cast<uint32_t>(rows.size());
    }
    const char* Find(const char* name) {
        const StatusVariableDef* found = FindStatusVariable(&manager, name);
        return found != nullptr ? found->name : "";
    }

    std::vector<const StatusVariableDef*> rows;
    ManagerRecord manager = {};
};

} // namespace

TEST(Catalogue, EveryRowIsFoundAndNothingElse) {
    Index index;
    ASSERT_EQ(index.rows.size(), 57u);
    for (const StatusVariableDef* row : index.rows)
        EXPECT_STREQ(index.Find(row->name), row->name);
    for (const char* name : {"rwresult", "printerstatus", "PRINTERSTATUS", "", "A", "PrinterStatusX", "PrinterStatu",
                             "zzz", "ErrNSMError", "PrinterStatus ", "\xff"})
        EXPECT_STREQ(index.Find(name), "") << name;
    index.manager.variableCount = 0;
    EXPECT_STREQ(index.Find("PrinterStatus"), "");
}

TEST(Catalogue, ConstantOrderIsThatOfThePlatform) {
    std::vector<const char*> names = {"", "a", "A", "aa", "aA", "Aa", "AA", "a1", "a2", "a10", "1", "9z", "z9", "Z"};
    for (uint32_t i = 0; i < CountStatusVariables(); ++i)
        names.push_back(kStatusVariables[i].name);
    const auto sign = [](int order) { return (order > 0) - (order < 0); };
    for (const char* a : names)
        for (const char* b : names)
            EXPECT_EQ(sign(CompareNames(a, b)), sign(lstrcmpA(a, b))) << a << " and " << b;
}

// One row for each kind of row, and the rows that break a rule.
TEST(Catalogue, RowsCarryTheirFlagsTimesAndValues) {
    Index index;
    struct Row {
        const char* name;
        uint32_t flags, size, timeout;
        Bytes value;
    };
    const Bytes minusOne(4, 0xFF);
    const Row rows[] = {
        {"AccessControlList", 0x00000010, 0, 0, Joined({Number(4), Number(0)})},
        {"CurrentStatus", 0x00010040, 24, 0, BytesOf("PrinterStatus;SpoolerStatus;ClientStatus;JobStatus;")},
        {"ErrCoverOpen", 0x04310004, 4, 120000, minusOne},
        {"ErrNoPaper", 0x00310420, 4, 120000, minusOne},
        {"ErrPaperState", 0x00010420, 4, 0, Number(0)},
        {"PageCount", 0x00310704, 4, 0, minusOne},
        {"Port", 0x00010020, 260, 0, Bytes(260)},
        {"PrinterLocation", 0x04310408, 260, 1800000, Bytes(260)},
        {"PrinterMemory", 0x02250504, 4, 0, minusOne},
        {"PrinterStatusEx", 0x00010040, 32, 0,
         BytesOf("PrinterStatus;ErrPaperJam;ErrPaperSizeError;ErrFormRegistError;ErrNoPaper;ErrNSMError;")},
        {"PrintingJobInfo", 0x00310020, 296, 60000, Bytes(296)},
        {"RefreshStatus", 0x0C030208, 260, 0, Bytes(260)},
        {"RWResult", 0x00011004, 4, 0, Number(0)},
        {"ServerOS", 0x00110020, 12, 0, Bytes(12, 0xFF)},
        {"SpoolerQueue", 0x00310410, 0, 60000, Joined({Number(4), Number(0)})},
        {"UserAuthority", 0x00010004, 4, 60000, Number(1)},
    };
    for (const Row& row : rows) {
        const StatusVariableDef* found = FindStatusVariable(&index.manager, row.name);
        ASSERT_NE(found, nullptr) << row.name;
        EXPECT_EQ(found->flags, row.flags) << row.name;
        EXPECT_EQ(found->size, row.size) << row.name;
        EXPECT_EQ(found->timeoutMs, row.timeout) << row.name;
        EXPECT_EQ(std::memcmp(found->defaultValue, row.value.data(), row.value.size()), 0) << row.name;
    }
    uint32_t sum = 0; // of all flags: a digit that went wrong anywhere shows
    for (const StatusVariableDef* row : index.rows)
        sum += row->flags ^ (row->timeoutMs << 8);
    EXPECT_EQ(sum, 0x3F2675ACu);
}

TEST(Catalogue, BuiltValuesAreThoseOfTheirDevices) {
    const auto built = [](BuildDefaultProc build) {
        Bytes value(build(nullptr), 0xEE);
        void* buffer = value.data();
        EXPECT_EQ(build(&buffer), value.size());
        return value;
    };
    Bytes bins = Joined({Number(68), Number(5)});
    for (uint32_t id : {1u, 2u, 3u, 1001u, 2001u})
        bins = Joined({bins, Number(id | id << 16), {9, 0, 1, 0}, Number(0)});
    EXPECT_EQ(built(BuildBinConfig), bins);
    EXPECT_EQ(built(BuildOptionConfig), Joined({Number(16), Number(1), Number(2001 | 2001 << 16), Number(0)}));
    EXPECT_EQ(built(BuildFontInfo), Joined({Number(12), Number(1), Number(2773)}));
}

TEST(Catalogue, OnlyPlainTypesAreDatabaseTypes) {
    struct Row {
        uint32_t flags;
        int type; // -1: none
    };
    const Row rows[] = {{0x01, 0},     {0x02, 1},  {0x10004, 2},     {0x08, 3},       {0x20, 4},
                        {0x310010, 5}, {0x40, -1}, {0x80, -1},       {0x05, -1},      {0x00, -1},
                        {0x90, -1},    {0x03, -1}, {0x10000004, -1}, {0x20000010, -1}};
    for (const Row& row : rows) {
        dblink::DatabaseType type = dblink::kTypeCount;
        EXPECT_EQ(DatabaseTypeOf(row.flags, &type), row.type >= 0) << std::hex << row.flags;
        if (row.type >= 0) {
            EXPECT_EQ(static_cast<int>(type), row.type) << std::hex << row.flags;
        }
    }
}
