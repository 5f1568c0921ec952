// The built-in table, its order, and the look-up.
#include "machine.h"
#include "manager/variable_index.h"
#include "manager/variables.h"
#include "product/name_order.h"
#include "product/variables.h"

TEST(Catalogue, EveryRowIsFoundAndNothingElse) {
    std::vector<const StatusVariableDef*> rows;
    for (uint32_t i = 0; i < CountStatusVariables(); ++i)
        rows.push_back(&kStatusVariables[i]);
    ASSERT_EQ(rows.size(), kBuiltInVariableCount);
    ManagerRecord manager = {};
    manager.variableIndex = rows.data();
    manager.variableCount = static_cast<uint32_t>(rows.size());
    for (const StatusVariableDef* row : rows)
        EXPECT_EQ(FindStatusVariable(&manager, row->name), row);
    for (const char* name : {"rwresult", "PRINTERSTATUS", "", "A", "PrinterStatusX", "PrinterStatu", "zzz",
                             "ErrNSMError", "PrinterStatus ", "\xff"})
        EXPECT_EQ(FindStatusVariable(&manager, name), nullptr) << name;
    manager.variableCount = 0;
    EXPECT_EQ(FindStatusVariable(&manager, "PrinterStatus"), nullptr);
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

TEST(Catalogue, OnlyPlainTypesAreDatabaseTypes) {
    struct Row {
        uint32_t flags;
        int type; // -1: none
    };
    const Row rows[] = {{0x01, 0},     {0x02, 1},  {0x10004, 2},     {0x08, 3},       {0x20, 4},
                        {0x310010, 5}, {0x40, -1}, {0x80, -1},       {0x05, -1},      {0x00, -1},
                        {0x90, -1},    {0x03, -1}, {0x10000004, -1}, {0x20000010, -1}};
    for (const Row& row : rows) {
        product::DatabaseType type = product::kTypeCount;
        EXPECT_EQ(DatabaseTypeOf(row.flags, &type), row.type >= 0) << std::hex << row.flags;
        if (row.type >= 0) {
            EXPECT_EQ(static_cast<int>(type), row.type) << std::hex << row.flags;
        }
    }
}
