// What each procedure answers.
#include "service_under_test.h"

#include <algorithm>

TEST(Databases, AreCreatedOnceAndOpenedWhenReady) {
    const Service service;
    const char* name = "TVORSQD_DB1";
    Database creator, other;
    EXPECT_EQ(other.Open(name), kUnknownDatabase);
    ASSERT_EQ(creator.Create(name), kDone);
    ASSERT_EQ(creator.Add("Old", kTypeNumber, Number(1)), kDone);
    const HANDLE ready = OpenEventA(SYNCHRONIZE, FALSE, "TVORSQD_DB1:Initialized");
    ASSERT_NE(ready, nullptr);
    // An unfinished one that is closed is made afresh; who waits for it is let go, and waits again.
    ASSERT_EQ(creator.Close(), kDone);
    EXPECT_EQ(WaitForSingleObject(ready, 0), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(other.Open(name), kUnknownDatabase);
    ASSERT_EQ(creator.Create(name), kDone);
    EXPECT_EQ(WaitForSingleObject(ready, 0), DWORD{WAIT_TIMEOUT});
    VariableInfo variable = {};
    EXPECT_EQ(creator.Info("Old", &variable), kUnknownVariable);

    EXPECT_EQ(other.Create(name), kDatabaseExists);
    EXPECT_EQ(other.Open(name), kBeingInitialised);
    EXPECT_EQ(creator.Watch("Any", kEveryWrite), kBeingInitialised);
    EXPECT_EQ(creator.EndInitialization(), kDone);
    EXPECT_EQ(WaitForSingleObject(ready, 0), DWORD{WAIT_OBJECT_0});
    CloseHandle(ready);
    EXPECT_EQ(creator.EndInitialization(), kNotCreator);
    ASSERT_EQ(other.Open(name), kDone);
    EXPECT_EQ(other.OpenHandles(), 2u);
    EXPECT_EQ(other.Close(), kDone);
    EXPECT_EQ(other.Close(), kUnknownDatabase);
    EXPECT_EQ(other.Open("tvorsqd_db1"), kUnknownDatabase) << "names are exact";
    for (const char* bad : {"", "12345678901234567890123456789012", "A\\B"})
        EXPECT_EQ(other.Create(bad), kBadName) << bad;
    EXPECT_EQ(other.Create("1234567890123456789012345678901"), kDone);
}

namespace {

// The service, with one database that has a variable of each type.
struct Variables : testing::Test {
    const Service service;
    const Database database{"Database",
                            {{"Byte", kTypeByte, {1}},
                             {"Word", kTypeWord, {1, 2}},
                             {"Number", kTypeNumber, Number(7)},
                             {"Text", kTypeString, Bytes(32, 't')},
                             {"Record", kTypeRecord, Bytes(12, 'r')},
                             {"B", kTypeRecord, {1, 2, 3}},
                             {"List", kTypeVariableLength, {3, 0, 0, 0, 5, 6, 7}},
                             {"Queue", kTypeVariableLength, {4, 0, 0, 0, 0, 0, 0, 0}},
                             {"Inner", kTypeComposite, {}},
                             {"Outer", kTypeComposite, {}},
                             {"All", kTypeComposite, {}}}};
};
using Composites = Variables;

} // namespace

TEST_F(Variables, AreCreatedAsTheirTypeAllows) {
    const struct {
        std::string name;
        DWORD type;
        Bytes value;
        LONG answer;
    } rows[] = {
        {"Number", kTypeNumber, Number(8), kVariableExists},
        {"number", kTypeNumber, Number(8), kDone}, // another name
        {"Empty", kTypeNumber, {}, kWrongSize},
        {"FullComposite", kTypeComposite, {1}, kWrongSize},
        {"Strange", kTypeCount, {1}, kBadArgument},
        {"", kTypeByte, {1}, kBadName},
        {std::string(255, 'n'), kTypeByte, {1}, kDone},
        {std::string(256, 'n'), kTypeByte, {1}, kBadName},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(database.Add(row.name, row.type, row.value), row.answer) << row.name;
        EXPECT_TRUE(row.answer != kDone || database.Value(row.name) == row.value) << row.name;
    }
    EXPECT_EQ(database.Add("Reserved", kTypeByte, {1}, 1), kBadArgument);
}

TEST_F(Variables, TakeValuesOfTheirSizes) {
    // The composite has no members. A companion is made by its first write that is taken.
    const std::tuple<const char*, size_t, LONG> rows[] = {{"Byte", 0, kWrongSize},    {"Byte", 2, kWrongSize},
                                                          {"Byte", 1, kDone},         {"Byte", 2, kWrongSize},
                                                          {"Word", 1, kWrongSize},    {"Word", 2, kDone},
                                                          {"Number", 8, kWrongSize},  {"Number", 4, kDone},
                                                          {"Text", 33, kWrongSize},   {"Text", 32, kDone},
                                                          {"Text", 5, kDone},         {"Text", 33, kWrongSize},
                                                          {"Record", 13, kWrongSize}, {"Record", 12, kDone},
                                                          {"Record", 7, kDone},       {"All", 4, kWrongSize},
                                                          {"List", 100000, kDone},    {"List", kValueSizeMax, kDone},
                                                          {"List", 0, kDone},         {"Missing", 4, kUnknownVariable},
                                                          {"NumberW", 2, kWrongSize}, {"NumberW", 4, kDone},
                                                          {"NumberW", 4, kDone},      {"NumberW", 2, kWrongSize},
                                                          {"ListW", 5000, kDone},     {"AllW", 4, kUnknownVariable},
                                                          {"W", 4, kUnknownVariable}};
    const auto valueOf = [&](const char* name) {
        VariableInfo info = {};
        return database.Info(name, &info) == kDone ? database.Value(name) : Bytes{};
    };
    unsigned char fill = 0;
    for (const auto& [name, size, answer] : rows) {
        SCOPED_TRACE(name + std::to_string(size));
        const Bytes before = valueOf(name), value(size, ++fill);
        EXPECT_EQ(database.Write(name, value), answer);
        EXPECT_EQ(valueOf(name), answer == kDone ? value : before);
    }
    EXPECT_NE(database.Value("Number"), database.Value("NumberW"));

    // A short buffer gets the size and no part of the value.
    ASSERT_EQ(database.Write("Record", Bytes(12, 'r')), kDone);
    Bytes buffer;
    DWORD valueSize = 0;
    for (const DWORD size : {11u, 13u}) {
        EXPECT_EQ(database.Read("Record", size, &buffer, &valueSize), size < 12 ? kBufferTooSmall : kDone);
        EXPECT_EQ(valueSize, 12u);
        Bytes expected(size);
        if (size >= 12) std::fill_n(expected.begin(), 12, 'r');
        EXPECT_EQ(buffer, expected) << size;
    }
}

TEST_F(Variables, WritesAreCountedAndTimedInUtcAndNoTwoAtOnce) {
    SYSTEMTIME now;
    GetSystemTime(&now);
    constexpr DWORD kWrites = 200;
    ULONGLONG last = 0;
    for (DWORD i = 0; i < kWrites; ++i) {
        const VariableInfo info = database.Info("Number");
        EXPECT_GT(Milliseconds(info.writeTime), last);
        EXPECT_EQ(info.writes, i + 1) << "its creation is one";
        last = Milliseconds(info.writeTime);
        EXPECT_EQ(database.Set("Number", i), kDone);
    }
    EXPECT_LT(last - Milliseconds(now), 20000u);
}

TEST_F(Composites, AreTheirMembersInListOrder) {
    const Bytes a = Number(7), b = {1, 2, 3};
    const std::pair<const char*, Bytes> rows[] = {{"Number;B;", a + b},
                                                  {"B;ErrNSMError;Number;", b + a}, // a member that is not there
                                                  {"Word;Word;", {1, 2, 1, 2}},
                                                  {";;B;;", b},
                                                  {"Missing;", {}},
                                                  {"", {}}};
    for (const auto& [list, value] : rows) {
        EXPECT_EQ(database.Compose("All", list), kDone);
        EXPECT_EQ(database.Value("All"), value) << list;
    }
    EXPECT_EQ(database.Compose("Number", "B;"), kBadArgument);
    EXPECT_EQ(database.Compose("Missing", "B;"), kUnknownVariable);

    // A member that comes later is there from then on; writes show at once. No value moves the members behind it.
    ASSERT_EQ(database.Compose("All", "B;Late;"), kDone);
    EXPECT_EQ(database.Value("All"), b);
    EXPECT_EQ(database.Add("Late", kTypeByte, {9}), kDone);
    EXPECT_EQ(database.Write("B", {4}), kDone);
    EXPECT_EQ(database.Value("All"), (Bytes{4, 0, 0, 9}));
    ASSERT_EQ(database.Compose("Outer", "List;Queue;Late;"), kDone);
    for (const Bytes& list : {Bytes{3, 0, 0, 0, 5, 6, 7}, Bytes{8}, Bytes{}, Bytes{5, 0, 0, 0, 1, 2, 3, 4, 5}}) {
        EXPECT_EQ(database.Write("List", list), kDone);
        EXPECT_EQ(database.Write("Queue", Bytes(500, 1)), kDone);
        Bytes expected(list.begin() + std::min<ptrdiff_t>(static_cast<ptrdiff_t>(list.size()), 4), list.end());
        expected.resize(3);
        EXPECT_EQ(database.Value("Outer"), expected + Bytes{9});
    }

    // Its write time is the latest of its members'.
    const DWORD writes = database.Info("All").writes;
    EXPECT_EQ(database.Write("Late", {8}), kDone);
    const VariableInfo all = database.Info("All");
    EXPECT_EQ(all.writes, writes + 1);
    EXPECT_EQ(Milliseconds(all.writeTime), Milliseconds(database.Info("Late").writeTime));
    EXPECT_EQ(all.size, 4u);

    // Composites of composites, and of themselves.
    EXPECT_EQ(database.Compose("Outer", "All;Number;All;"), kDone);
    EXPECT_EQ(database.Value("Outer"), (Bytes{4, 0, 0, 8} + a + Bytes{4, 0, 0, 8}));
    EXPECT_EQ(database.Compose("Outer", "Late;Outer;"), kDone);
    EXPECT_EQ(database.Value("Outer"), Bytes(kCompositeDepthMax, 8));
}

TEST_F(Composites, AWriteGoesToTheMembersOrNowhere) {
    ASSERT_EQ(database.Compose("Inner", "B;Missing;"), kDone);
    const struct {
        const char* list;
        size_t size;
        LONG answer;
    } rows[] = {{"Number;Inner;", 7, kDone},      {"Inner;Number;", 7, kDone},      {"Number;Inner;", 6, kWrongSize},
                {"Number;Inner;", 8, kWrongSize}, {"Number;Inner;", 0, kWrongSize}, {"Number;Number;", 8, kWrongSize},
                {"Number;List;", 5, kWrongSize},  {"Missing;", 0, kWrongSize}};
    unsigned char fill = 0x40;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.list + std::to_string(row.size));
        ASSERT_EQ(database.Compose("All", row.list), kDone);
        const Bytes before = database.Value("All");
        const DWORD writes = database.Info("Number").writes;
        Bytes value(row.size);
        for (unsigned char& byte : value)
            byte = ++fill;
        EXPECT_EQ(database.Write("All", value), row.answer);
        EXPECT_EQ(database.Value("All"), row.answer == kDone ? value : before);
        EXPECT_EQ(database.Info("Number").writes, writes + (row.answer == kDone));
    }
    EXPECT_EQ(database.Value("List"), (Bytes{3, 0, 0, 0, 5, 6, 7}));
}

TEST_F(Composites, HaveBounds) {
    std::string bytes, outers;
    for (DWORD i = 0; i < kCompositeMembersMax; ++i) {
        bytes += "Byte;";
        outers += "Outer;"; // 64 to the fourth, were there no bound
    }
    EXPECT_EQ(database.Compose("Inner", bytes), kDone);
    EXPECT_EQ(database.Value("Inner"), Bytes(kCompositeMembersMax, 1));
    EXPECT_EQ(database.Compose("Inner", bytes + "Byte;"), kLimitReached);
    EXPECT_EQ(database.Compose("Inner", std::string(kMemberListMax + 1, ';')), kLimitReached);
    EXPECT_EQ(database.Compose("Outer", outers), kDone);
    DWORD size = 1;
    EXPECT_EQ(database.Read("Outer", 4096, nullptr, &size), kLimitReached);
    EXPECT_EQ(size, 0u);
    // More bytes than any value may have.
    EXPECT_EQ(database.Add("Large", kTypeVariableLength, Bytes(kValueSizeMax / 2 + 8)), kDone);
    EXPECT_EQ(database.Compose("Outer", "Large;Large;"), kDone);
    EXPECT_EQ(database.Read("Outer", 0, nullptr, &size), kLimitReached);
}
