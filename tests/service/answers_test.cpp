// What each procedure answers.
#include "service_under_test.h"

#include <algorithm>

TEST(Databases, AreCreatedOnceAndOpenedWhenReady) {
    const Service service;
    const char* name = "TVORSQD_DB1";
    DWORD creator = 0;
    DWORD other = 0;
    EXPECT_EQ(OpenDatabase(name, &other), kUnknownDatabase);
    ASSERT_EQ(CreateDatabase(name, &creator), kDone);
    ASSERT_EQ(CreateVariable(creator, "Old", kTypeNumber, Number(1)), kDone);
    const HANDLE ready = OpenEventA(SYNCHRONIZE, FALSE, "TVORSQD_DB1:Initialized");
    ASSERT_NE(ready, nullptr);
    // An unfinished one that is closed is made afresh; who waits for it is let go, and waits again.
    ASSERT_EQ(CloseDatabase(creator), kDone);
    EXPECT_EQ(WaitForSingleObject(ready, 0), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(OpenDatabase(name, &other), kUnknownDatabase);
    ASSERT_EQ(CreateDatabase(name, &creator), kDone);
    EXPECT_EQ(WaitForSingleObject(ready, 0), DWORD{WAIT_TIMEOUT});
    VariableInfo variable = {};
    EXPECT_EQ(GetVariableInfo(creator, "Old", &variable), kUnknownVariable);

    EXPECT_EQ(CreateDatabase(name, &other), kDatabaseExists);
    EXPECT_EQ(other, 0u);
    EXPECT_EQ(OpenDatabase(name, &other), kBeingInitialised);
    EXPECT_EQ(WatchVariable(creator, "Any", kEveryWrite), kBeingInitialised);
    EXPECT_EQ(EndDatabaseInitialization(creator), kDone);
    EXPECT_EQ(WaitForSingleObject(ready, 0), DWORD{WAIT_OBJECT_0});
    CloseHandle(ready);
    EXPECT_EQ(EndDatabaseInitialization(creator), kNotCreator);
    ASSERT_EQ(OpenDatabase(name, &other), kDone);
    EXPECT_EQ(EndDatabaseInitialization(other), kNotCreator);
    EXPECT_EQ(CreateDatabase(name, &creator), kDatabaseExists);

    DatabaseInfo info = {};
    EXPECT_EQ(GetDatabaseInfo(other, &info), kDone);
    EXPECT_EQ(info.openHandles, 2u);
    EXPECT_EQ(CloseDatabase(other), kDone);
    for (const LONG answer : {CloseDatabase(other), GetDatabaseInfo(other, &info), EndDatabaseInitialization(other)})
        EXPECT_EQ(answer, kUnknownDatabase);
    EXPECT_EQ(OpenDatabase("tvorsqd_db1", &other), kUnknownDatabase) << "names are exact";
    for (const char* bad : {"", "12345678901234567890123456789012", "A\\B"})
        EXPECT_EQ(CreateDatabase(bad, &other), kBadName) << bad;
    EXPECT_EQ(CreateDatabase("1234567890123456789012345678901", &other), kDone);
}

TEST(Variables, AreCreatedAsTheirTypeAllows) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Number", kTypeNumber, Number(7)}});
    const struct {
        std::string name;
        DWORD type;
        Bytes value;
        LONG answer;
    } rows[] = {
        {"Number", kTypeNumber, Number(8), kVariableExists},
        {"number", kTypeNumber, Number(8), kDone}, // another name
        {"WideByte", kTypeByte, Number(1), kDone}, // keeps four bytes
        {"List", kTypeVariableLength, {}, kDone},
        {"All", kTypeComposite, {}, kDone},
        {"Empty", kTypeNumber, {}, kWrongSize},
        {"EmptyText", kTypeString, {}, kWrongSize},
        {"FullComposite", kTypeComposite, {1}, kWrongSize},
        {"Strange", kTypeCount, {1}, kBadArgument},
        {"", kTypeByte, {1}, kBadName},
        {std::string(255, 'n'), kTypeByte, {1}, kDone},
        {std::string(256, 'n'), kTypeByte, {1}, kBadName},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(CreateVariable(handle, row.name, row.type, row.value), row.answer) << row.name;
        if (row.answer == kDone) {
            EXPECT_EQ(ValueOf(handle, row.name), row.value) << row.name;
        }
    }
    EXPECT_EQ(CreateVariable(handle, "Reserved", kTypeByte, {1}, 1), kBadArgument);
    EXPECT_EQ(CreateVariable(handle + 1, "Any", kTypeByte, {1}), kUnknownDatabase);
    EXPECT_EQ(ValueOf(handle, "Number"), Number(7));
}

TEST(Variables, TakeValuesOfTheirSizes) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Byte", kTypeByte, {1}},
                                                    {"Word", kTypeWord, {1, 2}},
                                                    {"Number", kTypeNumber, Number(1)},
                                                    {"Text", kTypeString, Bytes(32, 't')},
                                                    {"Record", kTypeRecord, Bytes(12, 'r')},
                                                    {"List", kTypeVariableLength, {4, 0, 0, 0, 0, 0, 0, 0}},
                                                    {"All", kTypeComposite, {}}});
    const struct {
        const char* name;
        size_t size;
        LONG answer;
    } rows[] = {
        {"Byte", 1, kDone},
        {"Byte", 2, kWrongSize},
        {"Byte", 0, kWrongSize},
        {"Word", 2, kDone},
        {"Word", 1, kWrongSize},
        {"Number", 4, kDone},
        {"Number", 8, kWrongSize},
        {"Text", 32, kDone},
        {"Text", 5, kDone},
        {"Text", 33, kWrongSize},
        {"Record", 12, kDone},
        {"Record", 7, kDone},
        {"Record", 13, kWrongSize},
        {"List", 100000, kDone},
        {"List", kValueSizeMax, kDone},
        {"List", 0, kDone},
        {"All", 4, kWrongSize}, // it has no members
        {"Missing", 4, kUnknownVariable},
        // A companion is made by its first write that is taken.
        {"NumberW", 2, kWrongSize},
        {"NumberW", 4, kDone},
        {"NumberW", 4, kDone},
        {"TextW", 1, kDone},
        {"TextW", 32, kDone},
        {"TextW", 33, kWrongSize},
        {"ListW", 5000, kDone},
        {"AllW", 4, kUnknownVariable},
        {"NumberWW", 4, kUnknownVariable},
        {"W", 4, kUnknownVariable},
    };
    unsigned char fill = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name + (" " + std::to_string(row.size)));
        VariableInfo info = {};
        const bool known = GetVariableInfo(handle, row.name, &info) == kDone;
        const Bytes before = known ? ValueOf(handle, row.name) : Bytes{};
        const Bytes value(row.size, ++fill);
        EXPECT_EQ(WriteVariable(handle, row.name, value), row.answer);
        EXPECT_EQ(GetVariableInfo(handle, row.name, &info) == kDone, known || row.answer == kDone);
        if (!known && row.answer != kDone) continue;
        EXPECT_EQ(ValueOf(handle, row.name), row.answer == kDone ? value : before);
    }
    EXPECT_NE(ValueOf(handle, "Number"), ValueOf(handle, "NumberW"));
}

TEST(Variables, AShortBufferGetsTheSizeAndNoPartOfTheValue) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Record", kTypeRecord, Bytes(12, 'r')}});
    Bytes buffer;
    DWORD valueSize = 0;
    for (const DWORD size : {1u, 11u, 12u, 13u, 4096u}) {
        EXPECT_EQ(ReadVariable(handle, "Record", size, &buffer, &valueSize), size < 12 ? kBufferTooSmall : kDone);
        EXPECT_EQ(valueSize, 12u);
        Bytes expected(size);
        if (size >= 12) std::fill_n(expected.begin(), 12, 'r');
        EXPECT_EQ(buffer, expected) << size;
    }
    EXPECT_EQ(ReadVariable(handle, "Missing", 4, &buffer, &valueSize), kUnknownVariable);
    EXPECT_EQ(buffer, Bytes(4));
    EXPECT_EQ(valueSize, 0u);
}

TEST(Variables, WriteTimesAreKeptInUtcAndNoTwoAreTheSameAndWritesAreCounted) {
    const Service service;
    SYSTEMTIME now;
    GetSystemTime(&now);
    ULONGLONG last = Milliseconds(now) - 1;
    const DWORD handle = ReadyDatabase("Database", {{"Number", kTypeNumber, Number(1)}});
    constexpr DWORD kWrites = 200;
    for (DWORD i = 0; i < kWrites; ++i) {
        VariableInfo info = {};
        ASSERT_EQ(GetVariableInfo(handle, "Number", &info), kDone);
        EXPECT_GT(Milliseconds(info.writeTime), last);
        EXPECT_EQ(info.writes, i + 1) << "its creation is one";
        last = Milliseconds(info.writeTime);
        EXPECT_EQ(WriteVariable(handle, "Number", Number(i)), kDone);
    }
    GetSystemTime(&now);
    EXPECT_LE(last, Milliseconds(now) + kWrites); // they may come faster than one a millisecond
}

TEST(Requests, AreAnsweredThatNoPrinterSideServesThem) {
    const Service service;
    for (const char* request : {"ReadRequest:Front desk", "WriteRequest:p", "Refresh:p"})
        EXPECT_EQ(ForwardRequest(request), kNoPrinterSide) << request;
    for (const char* request : {"", "ReadRequest:", "readrequest:p", "ReadRequest", "Other:p"})
        EXPECT_EQ(ForwardRequest(request), kBadArgument) << request;
    EXPECT_EQ(ForwardRequest("Refresh:" + std::string(kRequestTextMax, 'p')), kBadArgument);
}

TEST(Composites, AreTheirMembersInListOrder) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"A", kTypeNumber, Number(0x11111111)},
                                                    {"B", kTypeRecord, {1, 2, 3}},
                                                    {"C", kTypeString, BytesOf("cc")},
                                                    {"List", kTypeVariableLength, {3, 0, 0, 0, 5, 6, 7}},
                                                    {"Queue", kTypeVariableLength, {4, 0, 0, 0, 0, 0, 0, 0}},
                                                    {"All", kTypeComposite, {}},
                                                    {"Outer", kTypeComposite, {}},
                                                    {"Self", kTypeComposite, {}}});
    const struct {
        const char* list;
        Bytes value;
    } rows[] = {
        {"A;B;", {0x11, 0x11, 0x11, 0x11, 1, 2, 3}},
        {"B;ErrNSMError;A;", {1, 2, 3, 0x11, 0x11, 0x11, 0x11}}, // a member that is not there
        {"C;C;", {'c', 'c', 0, 'c', 'c', 0}},
        {"B", {1, 2, 3}},
        {";;B;;", {1, 2, 3}},
        {"Missing;", {}},
        {"", {}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(SetCompositeMembers(handle, "All", row.list), kDone);
        EXPECT_EQ(ValueOf(handle, "All"), row.value) << row.list;
    }
    EXPECT_EQ(SetCompositeMembers(handle, "A", "B;"), kBadArgument);
    EXPECT_EQ(SetCompositeMembers(handle, "Missing", "B;"), kUnknownVariable);
    EXPECT_EQ(SetCompositeMembers(handle, "All", std::string(256, 'n') + ";"), kBadName);

    // A member that comes later is there from then on; writes show at once.
    ASSERT_EQ(SetCompositeMembers(handle, "All", "B;Late;"), kDone);
    EXPECT_EQ(ValueOf(handle, "All"), (Bytes{1, 2, 3}));
    EXPECT_EQ(CreateVariable(handle, "Late", kTypeByte, {9}), kDone);
    // No value moves the members behind it.
    EXPECT_EQ(WriteVariable(handle, "B", {4}), kDone);
    EXPECT_EQ(ValueOf(handle, "All"), (Bytes{4, 0, 0, 9}));
    DWORD size = 0;
    EXPECT_EQ(ReadVariable(handle, "All", 3, nullptr, &size), kBufferTooSmall);
    EXPECT_EQ(size, 4u);
    ASSERT_EQ(SetCompositeMembers(handle, "Outer", "List;Queue;Late;"), kDone);
    EXPECT_EQ(ValueOf(handle, "Outer"), (Bytes{5, 6, 7, 9}));
    for (const Bytes& list : {Bytes{1, 0, 0, 0, 8}, Bytes{8}, Bytes{}, Bytes{5, 0, 0, 0, 1, 2, 3, 4, 5}}) {
        EXPECT_EQ(WriteVariable(handle, "List", list), kDone);
        EXPECT_EQ(WriteVariable(handle, "Queue", Bytes(500, 1)), kDone);
        Bytes expected(list.begin() + static_cast<ptrdiff_t>(std::min<size_t>(list.size(), 4)), list.end());
        expected.resize(3);
        expected.push_back(9);
        EXPECT_EQ(ValueOf(handle, "Outer"), expected);
    }

    // Its write time is the latest of its members'.
    VariableInfo all = {};
    VariableInfo member = {};
    SYSTEMTIME now;
    do { // a burst of writes may have gone some milliseconds ahead of the clock
        EXPECT_EQ(GetVariableInfo(handle, "All", &all), kDone);
        GetSystemTime(&now);
    } while (Milliseconds(now) <= Milliseconds(all.writeTime));
    const DWORD writes = all.writes;
    EXPECT_EQ(WriteVariable(handle, "Late", {8}), kDone);
    EXPECT_EQ(GetVariableInfo(handle, "All", &all), kDone);
    EXPECT_EQ(all.writes, writes + 1);
    EXPECT_EQ(GetVariableInfo(handle, "Late", &member), kDone);
    EXPECT_EQ(Milliseconds(all.writeTime), Milliseconds(member.writeTime));
    EXPECT_EQ(all.type, kTypeComposite);
    EXPECT_EQ(all.size, 4u);

    // Composites of composites, and of themselves.
    EXPECT_EQ(SetCompositeMembers(handle, "Outer", "All;A;All;"), kDone);
    EXPECT_EQ(ValueOf(handle, "Outer"), (Bytes{4, 0, 0, 8, 0x11, 0x11, 0x11, 0x11, 4, 0, 0, 8}));
    EXPECT_EQ(SetCompositeMembers(handle, "Self", "Late;Self;"), kDone);
    EXPECT_EQ(ValueOf(handle, "Self"), Bytes(kCompositeDepthMax, 8));
}

TEST(Composites, AWriteGoesToTheMembersOrNowhere) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"A", kTypeNumber, Number(1)},
                                                    {"B", kTypeRecord, {1, 2, 3}},
                                                    {"List", kTypeVariableLength, {1, 0, 0, 0, 9}},
                                                    {"Inner", kTypeComposite, {}},
                                                    {"All", kTypeComposite, {}}});
    ASSERT_EQ(SetCompositeMembers(handle, "Inner", "B;Missing;"), kDone);
    const struct {
        const char* list;
        size_t size;
        LONG answer;
    } rows[] = {
        {"A;Inner;", 7, kDone},      {"Inner;A;", 7, kDone},  {"A;Inner;", 6, kWrongSize}, {"A;Inner;", 8, kWrongSize},
        {"A;Inner;", 0, kWrongSize}, {"A;A;", 8, kWrongSize}, {"A;List;", 5, kWrongSize},  {"Missing;", 0, kWrongSize},
    };
    unsigned char fill = 0x40;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.list + std::to_string(row.size));
        ASSERT_EQ(SetCompositeMembers(handle, "All", row.list), kDone);
        const Bytes before = ValueOf(handle, "All");
        VariableInfo member = {};
        ASSERT_EQ(GetVariableInfo(handle, "A", &member), kDone);
        const DWORD writes = member.writes;
        Bytes value(row.size);
        for (unsigned char& byte : value)
            byte = ++fill;
        EXPECT_EQ(WriteVariable(handle, "All", value), row.answer);
        EXPECT_EQ(ValueOf(handle, "All"), row.answer == kDone ? value : before);
        EXPECT_EQ(GetVariableInfo(handle, "A", &member), kDone);
        EXPECT_EQ(member.writes, writes + (row.answer == kDone));
    }
    EXPECT_EQ(ValueOf(handle, "List"), (Bytes{1, 0, 0, 0, 9}));
}

TEST(Composites, HaveBounds) {
    const Service service;
    const DWORD handle = ReadyDatabase(
        "Database", {{"B", kTypeByte, {1}}, {"Inner", kTypeComposite, {}}, {"Outer", kTypeComposite, {}}});
    std::string list;
    for (DWORD i = 0; i < kCompositeMembersMax; ++i)
        list += "B;";
    EXPECT_EQ(SetCompositeMembers(handle, "Inner", list), kDone);
    EXPECT_EQ(ValueOf(handle, "Inner"), Bytes(kCompositeMembersMax, 1));
    EXPECT_EQ(SetCompositeMembers(handle, "Inner", list + "B;"), kLimitReached);
    EXPECT_EQ(SetCompositeMembers(handle, "Inner", std::string(kMemberListMax + 1, ';')), kLimitReached);
    list.clear();
    for (DWORD i = 0; i < kCompositeMembersMax; ++i)
        list += "Outer;"; // 64 to the fourth, were there no bound
    EXPECT_EQ(SetCompositeMembers(handle, "Outer", list), kDone);
    DWORD size = 1;
    EXPECT_EQ(ReadVariable(handle, "Outer", 4096, nullptr, &size), kLimitReached);
    EXPECT_EQ(size, 0u);
    VariableInfo info = {};
    EXPECT_EQ(GetVariableInfo(handle, "Outer", &info), kLimitReached);
    // More bytes than any value may have.
    EXPECT_EQ(CreateVariable(handle, "Large", kTypeVariableLength, Bytes(kValueSizeMax / 2 + 8)), kDone);
    EXPECT_EQ(SetCompositeMembers(handle, "Outer", "Large;Large;"), kDone);
    EXPECT_EQ(ReadVariable(handle, "Outer", 0, nullptr, &size), kLimitReached);
}
