// Who may write what: an ordinary user, a member of the administrators' group, and what an administrator set after a
// restart.
#include "acting_user.h"
#include "not_here.h"
#include "printer_machine.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>

namespace {

constexpr unsigned kNobody = 65534;
constexpr unsigned kMembersGroup = 1;
constexpr char kMembersGroupName[] = "daemon";

std::string Hex(const Bytes& bytes) {
    std::string text = "-";
    char digits[3];
    for (const unsigned char byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(byte));
        text += digits;
    }
    return text;
}

Bytes FromHex(const std::string& text) {
    Bytes bytes;
    for (size_t at = 1; at + 1 < text.size(); at += 2)
        bytes.push_back(static_cast<unsigned char>(std::strtoul(text.substr(at, 2).c_str(), nullptr, 16)));
    return bytes;
}

// Databases that this process has opened, or made.
DWORD HandleOf(const std::string& database) {
    static std::map<std::string, DWORD> handles;
    DWORD& handle = handles[database];
    if (handle == 0) OpenDatabase(database, &handle);
    return handle;
}

LONG Carry(const std::string& line) {
    std::istringstream words(line);
    std::string what;
    std::string database;
    std::string variable;
    std::string value;
    words >> what >> database >> variable >> value;
    if (what == "make") {
        DWORD handle = 0;
        const LONG status = CreateDatabase(database, &handle);
        if (status != kDone) return status;
        const LONG created = CreateVariable(handle, "AccessControlList", kTypeVariableLength, FromHex(variable));
        return created != kDone ? created : EndDatabaseInitialization(handle);
    }
    const DWORD handle = HandleOf(database);
    if (what == "write") return WriteVariable(handle, variable, FromHex(value));
    if (what == "create") return CreateVariable(handle, variable, kTypeNumber, Number(1));
    if (what == "compose") return SetCompositeMembers(handle, variable, value);
    if (what == "watch") return WatchVariable(handle, variable, kEveryWrite);
    return -1;
}

// A process of another user that makes calls, one for a line.
struct OtherUser {
    explicit OtherUser(const std::vector<unsigned>& groups = {}) : process("CallsAsAnotherUser", Words(groups)) {
        EXPECT_EQ(process.Hear(), "ready");
    }
    static std::vector<std::string> Words(const std::vector<unsigned>& groups) {
        std::vector<std::string> words;
        for (const unsigned group : groups)
            words.push_back(std::to_string(group));
        return words;
    }
    LONG Call(const std::string& line) {
        process.Tell(line);
        return static_cast<LONG>(std::strtol(process.Hear().c_str(), nullptr, 10));
    }
    LONG Write(const std::string& database, const std::string& variable, const Bytes& value) {
        return Call("write " + database + " " + variable + " " + Hex(value));
    }
    TestProcess process;
};

void UseAdministratorsGroup(const std::string& name) {
    HKEY key = nullptr;
    ASSERT_EQ(
        RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Tavik\\Oriel", 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr),
        ERROR_SUCCESS);
    EXPECT_EQ(RegSetValueExA(key, "AdministratorsGroup", 0, REG_SZ, reinterpret_cast<const BYTE*>(name.c_str()),
                             static_cast<DWORD>(name.size() + 1)),
              ERROR_SUCCESS);
    RegCloseKey(key);
}

const std::vector<VariableRow> kVariables = {
    {"AccessControlList", kTypeVariableLength, {4, 0, 0, 0, 0, 0, 0, 0}},
    {"Port", kTypeRecord, Bytes(260)},
    {"PrinterExtStatus", kTypeNumber, Number(0)},
    {"PortEx", kTypeComposite, {}},
    {"PrinterName", kTypeString, Bytes(260)},
    {"PageCount", kTypeNumber, Number(0)},
    {"TerminateManager", kTypeNumber, Number(0)},
    {"ReadRequest", kTypeString, Bytes(32)},
    {kForwardMailbox, kTypeRecord, Bytes(8)},
    {kForwardAnswer, kTypeRecord, Bytes(8)},
};

Bytes Changed(const Bytes& list, size_t entry, size_t at, const Bytes& value) {
    Bytes changed = list;
    std::copy(value.begin(), value.end(), changed.begin() + static_cast<ptrdiff_t>(kEntryAt + entry * kEntrySize + at));
    return changed;
}

const Bytes kSomeList = {12, 0, 0, 0, 2, 0, 12, 0, 0, 0, 0, 0, 1, 2, 3, 4};

} // namespace

// Arguments: its groups.
CHILD_PROCESS(CallsAsAnotherUser) {
    std::vector<unsigned> groups;
    for (const std::string& argument : child.arguments)
        groups.push_back(static_cast<unsigned>(std::strtoul(argument.c_str(), nullptr, 10)));
    if (!ActAs(kNobody, kNobody, groups)) return 1;
    child.Say("ready");
    for (std::string line = child.Hear(); !line.empty(); line = child.Hear())
        child.Say(line == "number" ? std::to_string(GetCurrentProcessId()) : std::to_string(Carry(line)));
    return 0;
}

TEST_AS_ROOT(Authority, SettingsAreForAdministrators) {
    NeedsTheLayer("threads that are other users by number");
    UseAdministratorsGroup(kMembersGroupName);
    const PrinterMachine machine(20000, kVariables);
    const DWORD handle = machine.databases[0];
    ASSERT_EQ(SetCompositeMembers(handle, "PortEx", "PrinterExtStatus;Port;"), kDone);
    const std::string database = DatabaseOf(0);
    OtherUser nobody;
    OtherUser member({kMembersGroup});
    const struct {
        std::string call;
        LONG nobodys;
        const char* unchanged = nullptr; // by nobody
        LONG members = kDone;
    } rows[] = {
        {"write DB PageCount " + Hex(Number(5)), kDone},
        {"write DB TerminateManager " + Hex(Number(1)), kDone},
        {"write DB ReadRequest " + Hex(BytesOf("PageCount")), kDone},
        {"write DB AccessControlList " + Hex(kSomeList), kAccessDenied, "AccessControlList"},
        {"write DB AccessControlListW " + Hex(kSomeList), kAccessDenied},
        {"write DB Port " + Hex(Bytes(260, 'p')), kAccessDenied, "Port"},
        {"write DB Port " + Hex(Bytes(400, 'p')), kAccessDenied, "Port", kWrongSize},
        {"write DB PortW " + Hex(Bytes(260, 'p')), kAccessDenied},
        {"write DB PortW " + Hex(Bytes(260, 'q')), kAccessDenied},
        {"write DB PortEx " + Hex(Bytes(264, 'p')), kAccessDenied, "PrinterExtStatus"},
        {"write DB PrinterName " + Hex(BytesOf(kPrinters[0])), kDone},
        {"write DB PrinterName " + Hex(BytesOf(kPrinters[1])), kAccessDenied, "PrinterName"},
        {"write DB ForwardAnswer " + Hex(Bytes(8, 1)), kAccessDenied, kForwardAnswer},
        {"write DB ForwardMailbox " + Hex(Bytes(8, 1)), kNotWritable, kForwardMailbox, kNotWritable},
        {"watch DB ForwardMailbox", kAccessDenied},
        {"watch DB PageCount", kDone},
        {"create DB ErrNSMError", kAccessDenied},
        {"compose DB PortEx Port;", kAccessDenied, "PortEx"},
        {"make TVORSQD_DB77 -", kAccessDenied},
    };
    for (const auto& row : rows) {
        std::string call = row.call;
        if (const size_t at = call.find(" DB "); at != call.npos) call.replace(at + 1, 2, database);
        SCOPED_TRACE(call.substr(0, 60));
        const Bytes before = row.unchanged ? ValueOf(handle, row.unchanged) : Bytes{};
        EXPECT_EQ(nobody.Call(call), row.nobodys);
        if (row.unchanged) {
            EXPECT_EQ(ValueOf(handle, row.unchanged), before);
        }
        EXPECT_EQ(member.Call(call), row.members);
    }
    // The group is asked for anew; an unknown or empty one has no members.
    for (const char* group : {"no-such-group", ""}) {
        UseAdministratorsGroup(group);
        EXPECT_EQ(member.Write(database, "Port", Bytes(260)), kAccessDenied) << group;
    }
}

TEST_AS_ROOT(Authority, OthersAddPrintersAndOwnThemAndNothingElse) {
    NeedsTheLayer("threads that are other users by number");
    UseAdministratorsGroup("");
    const PrinterMachine machine(20000, kVariables);
    OtherUser nobody;
    nobody.process.Tell("number");
    const Bytes own = Number(static_cast<DWORD>(std::strtoul(nobody.process.Hear().c_str(), nullptr, 10)));
    const Bytes three = PrinterList(3, 3);
    const Bytes four = PrinterList(4, 4);
    const Bytes owned = Changed(three, 1, kOwnerAt, own);
    const Bytes foreign = Changed(three, 1, kOwnerAt, Number(1));
    Bytes swapped = three;
    std::swap_ranges(swapped.begin() + kEntryAt, swapped.begin() + kEntryAt + kEntrySize,
                     swapped.begin() + kEntryAt + kEntrySize);
    const struct {
        const char* what;
        Bytes before;
        Bytes after;
        bool allowed;
    } rows[] = {
        {"the same", three, three, true},
        {"takes ownership", three, owned, true},
        {"gives it up", owned, three, true},
        {"adds a printer", three, four, true},
        {"adds one that it owns", three, Changed(four, 3, kOwnerAt, own), true},
        {"makes another the owner", three, foreign, false},
        {"takes another's", foreign, owned, false},
        {"ends another's", foreign, three, false},
        {"renames", three, Changed(three, 0, kNameAt, BytesOf("Mine")), false},
        {"leads to another database", three, Changed(three, 0, kDatabaseAt, BytesOf("TVORSQD_DB2")), false},
        {"changes the driver", three, Changed(three, 0, 300, BytesOf("Other")), false},
        {"exchanges two", three, swapped, false},
        {"takes one away", three, PrinterList(2, 2), false},
        {"adds two", PrinterList(2, 2), four, false},
        {"adds a name twice", three, Changed(four, 3, kNameAt, BytesOf(kPrinters[0])), false},
        {"adds one without a name", three, Changed(four, 3, kNameAt, {0}), false},
        {"adds one with another's database", three, Changed(four, 3, kDatabaseAt, BytesOf("TVORSQD_DB1")), false},
        {"adds one with another's number", three, Changed(four, 3, 0, Number(2)), false},
        {"adds one that uses the numbers up", three,
         Changed(Changed(four, 3, 0, Number(0xFFFFFFFF)), 3, kDatabaseAt, BytesOf("TVORSQD_DB4294967295")), false},
        {"adds one for another process", three, Changed(four, 3, kOwnerAt, Number(1)), false},
        {"counts too many", three, PrinterList(3, 4), false},
        {"counts too few", three, PrinterList(3, 2), false},
        {"is no list", three, {1, 2, 3}, false},
        {"is nothing", three, {}, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(WriteVariable(machine.master, "PrinterDatabase", row.before), kDone);
        EXPECT_EQ(nobody.Write("TVORSQD_DB", "PrinterDatabase", row.after), row.allowed ? kDone : kAccessDenied);
        EXPECT_EQ(ValueOf(machine.master, "PrinterDatabase"), row.allowed ? row.after : row.before);
    }
}

TEST_AS_ROOT(Authority, AnAccessListStaysThroughRestartsAndRenames) {
    NeedsTheLayer("threads that are other users by number");
    PrinterMachine machine(20000, {});
    const auto listOf = [](size_t printer) {
        DWORD handle = 0;
        EXPECT_EQ(OpenDatabase(DatabaseOf(printer), &handle), kDone);
        return ValueOf(handle, "AccessControlList");
    };
    // Databases of the printers in the list, made by whoever is first.
    const auto restart = [&](const Bytes& list) {
        machine.service.reset();
        machine.service = std::make_unique<Service>();
        machine.master = ReadyDatabase("TVORSQD_DB", {{"PrinterDatabase", kTypeVariableLength, list}});
        OtherUser nobody;
        for (size_t i = 0; i < std::size(kPrinters); ++i)
            EXPECT_EQ(nobody.Call("make " + DatabaseOf(i) + " " + Hex(Bytes(16, 'x'))), kDone);
    };
    const Bytes none = {4, 0, 0, 0, 0, 0, 0, 0};
    // Names that differ in case alone are two printers; one has a server, one what no name of a value is.
    Bytes list = Changed(PrinterList(4, 4), 0, kNameAt, BytesOf("Lobby"));
    list = Changed(list, 1, kNameAt, BytesOf("LOBBY"));
    list = Changed(list, 2, kNameAt, BytesOf("\\\\server\\q%5c\xFC"));
    restart(list);
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(listOf(i), none) << "whoever makes the database gives nobody rights";
    DWORD handles[3];
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_EQ(OpenDatabase(DatabaseOf(i), &handles[i]), kDone);
        EXPECT_EQ(WriteVariable(handles[i], "AccessControlList", Bytes(20 + i, static_cast<unsigned char>(i))), kDone);
    }
    restart(list);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(listOf(i), Bytes(20 + i, static_cast<unsigned char>(i))) << i;
    EXPECT_EQ(listOf(3), none);

    // Two exchange their names, and a third one's goes to a printer that had no list.
    Bytes renamed = Changed(list, 0, kNameAt, BytesOf("LOBBY"));
    renamed = Changed(renamed, 1, kNameAt, BytesOf("Lobby"));
    renamed = Changed(renamed, 2, kNameAt, BytesOf("New"));
    EXPECT_EQ(WriteVariable(machine.master, "PrinterDatabase", renamed), kDone);
    Bytes later = Changed(renamed, 3, kNameAt, BytesOf("\\\\server\\q%5c\xFC"));
    restart(later);
    EXPECT_EQ(listOf(0), Bytes(20, 0));
    EXPECT_EQ(listOf(1), Bytes(21, 1));
    EXPECT_EQ(listOf(2), Bytes(22, 2));
    EXPECT_EQ(listOf(3), none) << "another printer gets the name, not the list";
}
