// The printer's port and its name: what a change of them changes beside them.
#include "acting_user.h"
#include "machine.h"
#include "manager/printer_list.h"

#include <tvsqdz_records.h>

#include <cstring>

namespace {

const std::string kNewName = "Reception";

Bytes Port(uint32_t kind, const std::string& name, const std::string& detail = "") {
    TvsPortRecord port = {};
    port.portKind = kind;
    std::strcpy(port.portName, name.c_str());
    std::strcpy(port.portDetail, detail.c_str());
    return BytesOfRecord(port);
}

struct Settings : Opened {
    // The names of the printer list, each followed by ";".
    std::string ListedNames() const {
        const Bytes list = StoredBytes(record->masterDatabase.handle, product::kPrinterListVariable);
        std::string names;
        for (size_t at = offsetof(PrinterList, entries); at < list.size(); at += sizeof(PrinterListEntry))
            names +=
                reinterpret_cast<const char*>(&list[at + offsetof(PrinterListEntry, printerName)]) + std::string(";");
        return names;
    }
};

std::string StoredName(TvsManager manager) {
    return reinterpret_cast<const char*>(Read(manager, "PrinterName", 260).bytes.data());
}

} // namespace

TEST_F(Settings, AnotherPortResetsWhatDependsOnIt) {
    const Bytes built = Read(manager, "PrinterOptConfig", 12).bytes;
    Bytes endless = Port(1, "");
    std::fill(endless.begin() + 4, endless.begin() + 132, 'n');
    const std::tuple<const char*, Bytes, bool> rows[] = {
        {"the first one", Port(1, "LPT1:"), false},
        {"the same", Port(1, "LPT1:"), false},
        {"another name", Port(1, "LPT2:"), true},
        {"another detail", Port(1, "LPT2:", "x"), true},
        {"another kind, another case", Port(2, "LPT2:", "x"), true},
        {"none", Port(0, ""), true},
        {"one after none", Port(1, std::string(127, 'n')), false},
        {"a name without end", endless, true},
        {"the same", endless, false},
    };
    for (const auto& [what, port, resets] : rows) {
        SCOPED_TRACE(what);
        const std::tuple<const char*, Bytes, Bytes> variables[] = {
            {"PrinterOptConfig", Text("as the printer said"), built},
            {"PRecord", Text("RECORD"), Text("record")},
            {"PageCount", Number(5), Number(5)}}; // does not depend on it
        for (const auto& [variable, value, initial] : variables)
            EXPECT_EQ(Update(manager, variable, value), TVS_OK);
        EXPECT_EQ(Update(manager, "Port", port), TVS_OK);
        EXPECT_EQ(Read(manager, "Port", 260).bytes, port);
        for (const auto& [variable, value, initial] : variables) {
            const Bytes& now = resets ? initial : value;
            EXPECT_EQ(Read(manager, variable, static_cast<uint32_t>(now.size())).bytes, now);
            EXPECT_EQ(RegistryValue(kDriverData, std::string("SQD_") + variable), now);
        }
    }
    EXPECT_EQ(Update(manager, "Port", Bytes(259)), PassOn(Answer::WrongSize));
    EXPECT_EQ(Read(manager, "Port", 260).bytes, endless);
}

CHILD_PROCESS(ChangesSettingsAsAnotherUser) {
    if (!ActAs(65534, 65534)) return 1;
    const Library library;
    const TvsManager manager = OpenPrinter();
    for (const LONG status :
         {Update(manager, "Port", Port(1, "LPT9:")), Update(manager, "PrinterName", BytesOf("Mine")),
          Update(manager, "AccessControlList", Bytes(12, 1)), Update(manager, "PageCount", Number(6)),
          Update(manager, "JobStatus", Number(6))})
        child.Say(std::to_string(status));
    // A printer that nobody has opened yet.
    const TvsManager first = OpenPrinter(TVS_KIND_OWNER, kNewName);
    child.Say(StoredName(first) + " " + std::to_string(NumberOf(first, "UserAuthority")));
    return CloseManager(first);
}

TEST_F(Settings, OfAnotherUserChangeNothingAsRoot) {
    AddPrinter(kNewName, kModel);
    ASSERT_EQ(Update(manager, "Port", Port(1, "LPT1:")), TVS_OK);
    const Bytes config = Text("as the printer said");
    ASSERT_EQ(Update(manager, "PrinterOptConfig", config), TVS_OK);
    TestProcess other("ChangesSettingsAsAnotherUser");
    for (const char* expected : {"5", "5", "5", "5", "0"}) // ERROR_ACCESS_DENIED
        EXPECT_EQ(other.Hear(), expected);
    EXPECT_EQ(other.Hear(), kNewName + " 0");
    EXPECT_EQ(other.Wait(), 0) << other.Errors();
    EXPECT_EQ(Read(manager, "Port", 260).bytes, Port(1, "LPT1:"));
    EXPECT_EQ(Read(manager, "PrinterOptConfig", static_cast<uint32_t>(config.size())).bytes, config);
    EXPECT_EQ(ListedNames(), kPrinter + ";" + kNewName + ";");
    EXPECT_EQ(StoredName(manager), kPrinter);
    EXPECT_EQ(NumberOf(manager, "PageCount"), 0xFFFFFFFFu);
    EXPECT_EQ(NumberOf(manager, "JobStatus"), 6u);
}

TEST_F(Settings, AnotherNameIsOneInTheListTheManagerAndTheDatabase) {
    AddPrinter("Other", kModel);
    AddPrinter(kNewName, kModel);
    const TvsManager owner = OpenPrinter(TVS_KIND_OWNER);
    OpenPrinter(2, "Other");
    const std::string before = kPrinter + ";Other;";
    const std::tuple<const char*, Bytes, int32_t> refused[] = {
        {"no name", {}, PassOn(Answer::WrongSize)},
        {"260 characters", Bytes(260, 'x'), PassOn(Answer::WrongSize)},
        {"another printer's", BytesOf("Other"), PassOn(Answer::DatabaseExists)},
        {"its own", BytesOf(kPrinter), TVS_OK},
    };
    for (const auto& [what, proposed, status] : refused) {
        SCOPED_TRACE(what);
        EXPECT_EQ(Update(manager, "PrinterName", proposed), status);
        EXPECT_EQ(ListedNames(), before);
        EXPECT_EQ(StoredName(manager), kPrinter);
    }
    EXPECT_EQ(Update(manager, "PrinterName", BytesOf(kNewName)), TVS_OK);
    EXPECT_EQ(ListedNames(), kNewName + ";Other;");
    EXPECT_EQ(StoredName(owner), kNewName);
    // It is the same printer under its new name, and its owner can give it back.
    const TvsManager renamed = OpenPrinter(2, kNewName);
    EXPECT_STREQ(RecordOf(renamed)->databaseName, RecordOf(owner)->databaseName);
    EXPECT_EQ(CloseManager(owner), TVS_OK);
    EXPECT_NE(RecordOf(OpenPrinter(TVS_KIND_OWNER, kNewName))->flags & ManagerOwnsPrinter, 0u);
    // The longest name there is; back to a free one; and one that the list does not know.
    EXPECT_EQ(Update(renamed, "PrinterName", Bytes(259, 'n')), TVS_OK);
    EXPECT_EQ(Update(renamed, "PrinterName", BytesOf(kPrinter)), TVS_OK);
    EXPECT_EQ(ListedNames(), before);
    StoreBytes(database, "PrinterName", BytesOf("unlisted"));
    EXPECT_EQ(Update(manager, "PrinterName", BytesOf(kNewName)), TVS_E_NOT_NOW);
    EXPECT_EQ(ListedNames(), before);
}
