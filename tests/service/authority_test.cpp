// Who may write what: an ordinary user, a member of the administrators' group, and what an administrator set after a
// restart.
#include "acting_user.h"
#include "memory_kit.h"
#include "printer_machine.h"
#include "product/registry_names.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace {

constexpr unsigned kNobody = 65534;
constexpr unsigned kMembersGroup = 1;
constexpr char kMembersGroupName[] = "daemon";

void UseAdministratorsGroup(const std::string& name) {
    UseProductSetting("AdministratorsGroup", REG_SZ, name + '\0');
}

// The status of a call that nobody makes, in a process of its own; the user may be a member of a group.
LONG AsNobody(const std::function<LONG()>& call, const std::vector<unsigned>& groups = {}) {
    const int code = RunForked([&] { return ActAs(kNobody, kNobody, groups) ? call() : 99; });
    return static_cast<signed char>(code); // all that the service answers fits
}

// The same with a handle of that process.
LONG AsNobodyIn(const std::string& database, const std::function<LONG(const Database&)>& call,
                const std::vector<unsigned>& groups = {}) {
    return AsNobody(
        [&] {
            Database opened;
            const LONG status = opened.Open(database);
            return status == kDone ? call(opened) : status;
        },
        groups);
}

Bytes Changed(const Bytes& list, size_t entry, size_t at, const Bytes& value) {
    Bytes changed = list;
    std::copy(value.begin(), value.end(), changed.begin() + static_cast<ptrdiff_t>(kEntryAt + entry * kEntrySize + at));
    return changed;
}

} // namespace

TEST_AS_ROOT(Authority, SettingsAreForAdministrators) {
    UseAdministratorsGroup(kMembersGroupName);
    const PrinterMachine machine;
    const Database& database = machine.databases[0];
    for (const char* name : {kForwardMailbox, kForwardAnswer})
        ASSERT_EQ(database.Add(name, kTypeRecord, Bytes(8)), kDone);
    ASSERT_EQ(database.Compose("PortEx", "PrinterExtStatus;Port;"), kDone);
    const struct {
        std::string variable;
        Bytes value;
        LONG nobodys = kAccessDenied;
        LONG members = kDone;
    } writes[] = {
        {"PageCount", Number(5)},
        {"Level", Bytes{5}},
        {"JobStatus", Number(5), kDone},
        {"PageCountW", Number(5), kDone},
        {"TerminateManager", Number(1), kDone},
        {"ReadRequest", BytesOf("PageCount"), kDone},
        {"AccessControlList", Bytes(16, 'x')},
        {"Port", Bytes(260, 'p')},
        {"Port", Bytes(400, 'p'), kAccessDenied, kWrongSize},
        {"PortW", Bytes(260, 'p')},
        {"PortEx", Bytes(264, 'p')},
        {"PrinterName", BytesOf(kPrinters[0]), kDone},
        {"PrinterName", BytesOf(kPrinters[1])},
        {kForwardAnswer, Bytes(8, 1), kAccessDenied, kAccessDenied},
        {kForwardMailbox, Bytes(8, 1), kNotWritable, kNotWritable},
    };
    const auto valueOf = [&](const std::string& variable) {
        VariableInfo info = {};
        return database.Info(variable, &info) == kDone ? database.Value(variable) : Bytes{};
    };
    for (const auto& row : writes) {
        SCOPED_TRACE(row.variable + " " + std::to_string(row.value.size()));
        const auto write = [&](const Database& opened) { return opened.Write(row.variable, row.value); };
        const Bytes before = valueOf(row.variable);
        EXPECT_EQ(AsNobodyIn(DatabaseOf(0), write), row.nobodys);
        EXPECT_TRUE(row.nobodys == kDone || valueOf(row.variable) == before);
        EXPECT_EQ(AsNobodyIn(DatabaseOf(0), write, {kMembersGroup}), row.members);
    }
    const std::pair<std::function<LONG(const Database&)>, LONG> calls[] = {
        {[](const Database& opened) { return opened.Watch(kForwardMailbox, kEveryWrite); }, kAccessDenied},
        {[](const Database& opened) { return opened.Add("ErrNSMError", kTypeNumber, Number(1)); }, kAccessDenied},
        {[](const Database& opened) { return opened.Compose("PortEx", "Port;"); }, kAccessDenied},
        {[](const Database&) { return Database().Create("TVORSQD_DB77"); }, kAccessDenied},
    };
    for (const auto& [call, nobodys] : calls) {
        EXPECT_EQ(AsNobodyIn(DatabaseOf(0), call), nobodys) << &nobodys - &calls[0].second;
        EXPECT_EQ(AsNobodyIn(DatabaseOf(0), call, {kMembersGroup}), kDone);
    }
    // What an administrator opens is open at once.
    const auto count = [](const Database& opened) { return opened.Set("PageCount", 7); };
    for (const auto& [opened, status] :
         {std::pair{"Level;PageCount", kDone}, {"PageCountW;", kAccessDenied}, {"*", kDone}}) {
        UseProductSetting("VariablesForEveryone", REG_SZ, opened + std::string(1, '\0'));
        EXPECT_EQ(AsNobodyIn(DatabaseOf(0), count), status) << opened;
    }
    // The group is asked for anew; an unknown or empty one has no members.
    for (const char* group : {"no-such-group", ""}) {
        UseAdministratorsGroup(group);
        EXPECT_EQ(AsNobodyIn(DatabaseOf(0), calls[1].first, {kMembersGroup}), kAccessDenied) << group;
    }
}

TEST_AS_ROOT(Authority, OthersAddPrintersAndOwnThemAndNothingElse) {
    UseAdministratorsGroup("");
    const PrinterMachine machine;
    const auto write = [](const Database& master, const Bytes& list) { return master.Write("PrinterDatabase", list); };
    const Bytes three = PrinterList(3, 3);
    const Bytes four = PrinterList(4, 4);
    // A printer that nobody owns becomes the caller's and is given up; one is added, with or without an owner.
    for (const bool owns : {false, true}) {
        ASSERT_EQ(write(machine.master, three), kDone);
        EXPECT_EQ(AsNobodyIn("TVORSQD_DB",
                             [&](const Database& master) {
                                 const Bytes own = Number(GetCurrentProcessId());
                                 for (const Bytes& list : {three, Changed(three, 1, kOwnerAt, own), three,
                                                           owns ? Changed(four, 3, kOwnerAt, own) : four})
                                     if (write(master, list) != kDone || master.Value("PrinterDatabase") != list)
                                         return kAccessDenied;
                                 return kDone;
                             }),
                  kDone);
    }
    const Bytes foreign = Changed(three, 1, kOwnerAt, Number(1));
    Bytes swapped = three;
    std::swap_ranges(swapped.begin() + kEntryAt, swapped.begin() + kEntryAt + kEntrySize,
                     swapped.begin() + kEntryAt + kEntrySize);
    const struct {
        const char* what;
        Bytes after;
        Bytes before = PrinterList(3, 3);
    } rows[] = {
        {"makes another the owner", foreign},
        {"ends another's", three, foreign},
        {"renames", Changed(three, 0, kNameAt, BytesOf("Mine"))},
        {"leads to another database", Changed(three, 0, kDatabaseAt, BytesOf("TVORSQD_DB2"))},
        {"exchanges two", swapped},
        {"takes one away", PrinterList(2, 2)},
        {"adds two", four, PrinterList(2, 2)},
        {"adds a name twice", Changed(four, 3, kNameAt, BytesOf(kPrinters[0]))},
        {"adds one with another's database", Changed(four, 3, kDatabaseAt, BytesOf("TVORSQD_DB1"))},
        {"adds one with another's number", Changed(four, 3, 0, Number(2))},
        {"adds one that uses the numbers up",
         Changed(Changed(four, 3, 0, Number(0xFFFFFFFF)), 3, kDatabaseAt, BytesOf("TVORSQD_DB4294967295"))},
        {"adds one for another process", Changed(four, 3, kOwnerAt, Number(1))},
        {"counts too many", PrinterList(3, 4)},
        {"is no list", {1, 2, 3}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(write(machine.master, row.before), kDone);
        EXPECT_EQ(AsNobodyIn("TVORSQD_DB", [&](const Database& master) { return write(master, row.after); }),
                  kAccessDenied);
        EXPECT_EQ(machine.master.Value("PrinterDatabase"), row.before);
    }
    const Bytes fifth = Changed(Changed(Changed(four, 3, kNameAt, BytesOf("Elsewhere")), 3, 0, Number(9)), 3,
                                kDatabaseAt, BytesOf("TVORSQD_DB9"));
    for (const LONG expected : {LONG{kAccessDenied}, LONG{kDone}}) { // unknown to the machine, and then known
        ASSERT_EQ(write(machine.master, three), kDone);
        EXPECT_EQ(AsNobodyIn("TVORSQD_DB", [&](const Database& master) { return write(master, fifth); }), expected);
        HKEY key = nullptr;
        RegCreateKeyExA(HKEY_LOCAL_MACHINE, (std::string(kPrintersKey) + "\\Elsewhere").c_str(), 0, nullptr, 0,
                        KEY_WRITE, nullptr, &key, nullptr);
        RegCloseKey(key);
    }
    // Another's becomes the caller's once the owner, whatever process has its number now, is gone with its event.
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, "Global\\TVORSQD:Owner:TVORSQD_DB2");
    for (const auto expected : {kAccessDenied, kDone}) {
        ASSERT_EQ(write(machine.master, foreign), kDone);
        EXPECT_EQ(AsNobodyIn("TVORSQD_DB",
                             [&](const Database& master) {
                                 return write(master, Changed(foreign, 1, kOwnerAt, Number(GetCurrentProcessId())));
                             }),
                  expected);
        if (event != nullptr) CloseHandle(std::exchange(event, nullptr));
    }
}

TEST_AS_ROOT(Authority, AnAccessListStaysThroughRestartsAndRenames) {
    PrinterMachine machine;
    Database printers[4];
    // Databases of the printers in the list, made by whoever is first.
    const auto restart = [&](const Bytes& list) {
        machine.service.reset();
        machine.service = std::make_unique<Service>();
        machine.master = Database("TVORSQD_DB", {{"PrinterDatabase", kTypeVariableLength, list}});
        EXPECT_EQ(AsNobody([] {
                      for (size_t i = 0; i < 4; ++i)
                          Database(DatabaseOf(i), {{"AccessControlList", kTypeVariableLength, Bytes(16, 'x')}});
                      return testing::Test::HasFailure() ? kAccessDenied : kDone;
                  }),
                  kDone);
        for (size_t i = 0; i < 4; ++i)
            EXPECT_EQ(printers[i].Open(DatabaseOf(i)), kDone);
    };
    // With a first byte that tells the printers apart.
    const auto listOf = [](size_t i) { return Bytes(20 + i, static_cast<unsigned char>(i)); };
    const auto expectLists = [&] {
        for (size_t i = 0; i < 4; ++i)
            EXPECT_EQ(printers[i].Value("AccessControlList"), i < 3 ? listOf(i) : kNoList) << i;
    };
    const auto named = [](const char* first, const char* second, const char* third, const char* fourth) {
        Bytes list = PrinterList(4, 4);
        for (size_t i = 0; const char* name : {first, second, third, fourth})
            list = Changed(list, i++, kNameAt, BytesOf(name));
        return list;
    };
    // Names that differ in case alone are two printers; one has a server, one what no name of a value is.
    constexpr const char* kOdd = "\\\\server\\q%5c\xFC";
    const Bytes list = named("Lobby", "LOBBY", kOdd, "Attic");
    restart(list);
    for (const Database& printer : printers)
        EXPECT_EQ(printer.Value("AccessControlList"), kNoList) << "whoever makes the database gives nobody rights";
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(printers[i].Write("AccessControlList", listOf(i)), kDone);
    restart(list);
    expectLists();
    // Two exchange their names, and a third one's goes to a printer that had no list: it gets the name, not the list.
    EXPECT_EQ(machine.master.Write("PrinterDatabase", named("LOBBY", "Lobby", "New", "Attic")), kDone);
    restart(named("LOBBY", "Lobby", "New", kOdd));
    expectLists();
}
