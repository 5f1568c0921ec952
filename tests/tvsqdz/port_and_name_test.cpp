// The printer's port and its name: what a change of them changes beside them.
#include "acting_user.h"
#include "machine.h"
#include "manager/printer_list.h"
#include "product/client.h"
#include "values/database_creation.h"

#include <tvsqdz_records.h>

#include <cstring>

namespace {

const std::string kNewName = "Reception";

Bytes Port(uint32_t kind, const std::string& name, const std::string& detail = "") {
    TvsPortRecord port = {};
    port.portKind = kind;
    std::strcpy(port.portName, name.c_str());
    std::strcpy(port.portDetail, detail.c_str());
    const auto* bytes = reinterpret_cast<const unsigned char*>(&port);
    return {bytes, bytes + sizeof port};
}

// The names of the printer list, each followed by ";".
std::string ListedNames(TvsManager manager) {
    Bytes list(64 * sizeof(PrinterListEntry));
    DWORD size = 0;
    EXPECT_EQ(ReadVariable(RecordOf(manager)->masterDatabase, product::kPrinterListVariable, list.data(),
                           static_cast<DWORD>(list.size()), &size),
              Answer::Done);
    std::string names;
    for (size_t at = offsetof(PrinterList, entries); at < size; at += sizeof(PrinterListEntry))
        names += reinterpret_cast<const char*>(&list[at + offsetof(PrinterListEntry, printerName)]) + std::string(";");
    return names;
}

std::string StoredName(TvsManager manager) {
    const Bytes name = Read(manager, "PrinterName", 260).bytes;
    return reinterpret_cast<const char*>(name.data());
}

} // namespace

TEST(Port, AnotherOneResetsWhatDependsOnIt) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    const Bytes built = Read(manager, "PrinterOptConfig", 12).bytes;
    const std::string key = "System\\CurrentControlSet\\Control\\Print\\Printers\\" + kPrinter + "\\PrinterDriverData";
    const std::string longName(127, 'n');
    Bytes endless = Port(1, "");
    std::fill(endless.begin() + 4, endless.begin() + 132, 'n');
    const struct {
        const char* what;
        Bytes port;
        bool resets;
    } rows[] = {
        {"the first one", Port(1, "LPT1:"), false},
        {"the same", Port(1, "LPT1:"), false},
        {"another name", Port(1, "LPT2:"), true},
        {"another case", Port(1, "lpt2:"), true},
        {"another detail", Port(1, "lpt2:", "x"), true},
        {"another kind", Port(2, "lpt2:", "x"), true},
        {"none", Port(0, ""), true},
        {"one after none", Port(1, longName), false},
        {"a name without end", endless, true},
        {"the same", endless, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const Bytes config = Text("as the printer said");
        EXPECT_EQ(Update(manager, "PrinterOptConfig", config), TVS_OK);
        EXPECT_EQ(Update(manager, "PageCount", Number(5)), TVS_OK);
        EXPECT_EQ(Update(manager, "Port", row.port), TVS_OK);
        EXPECT_EQ(Read(manager, "Port", 260).bytes, row.port);
        EXPECT_EQ(
            Read(manager, "PrinterOptConfig", static_cast<uint32_t>(row.resets ? built.size() : config.size())).bytes,
            row.resets ? built : config);
        EXPECT_EQ(RegistryValue(key, "SQD_PrinterOptConfig"), row.resets ? built : config);
        EXPECT_EQ(NumberOf(manager, "PageCount"), 5u);
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
          Update(manager, "AccessControlList", Bytes(12, 1)), Update(manager, "PageCount", Number(6))})
        child.Say(std::to_string(status));
    // A printer that nobody has opened yet.
    const TvsManager first = OpenPrinter(TVS_KIND_OWNER, kNewName);
    child.Say(StoredName(first) + " " + std::to_string(NumberOf(first, "UserAuthority")));
    child.Say(std::to_string(CloseManager(first)));
    return 0;
}

TEST_AS_ROOT(Settings, OfAnotherUserChangeNothing) {
    NeedsTheLayer("threads that are other users by number");
    const Product product;
    AddPrinter(kNewName, kModel);
    const TvsManager manager = OpenPrinter();
    ASSERT_EQ(Update(manager, "Port", Port(1, "LPT1:")), TVS_OK);
    const Bytes config = Text("as the printer said");
    ASSERT_EQ(Update(manager, "PrinterOptConfig", config), TVS_OK);
    TestProcess other("ChangesSettingsAsAnotherUser");
    for (const Status expected :
         {Status{ERROR_ACCESS_DENIED}, Status{ERROR_ACCESS_DENIED}, Status{ERROR_ACCESS_DENIED}, TVS_OK})
        EXPECT_EQ(other.Hear(), std::to_string(expected));
    EXPECT_EQ(other.Hear(), kNewName + " 0");
    EXPECT_EQ(other.Hear(), "0");
    EXPECT_EQ(other.Wait(), 0) << other.Errors();
    EXPECT_EQ(Read(manager, "Port", 260).bytes, Port(1, "LPT1:"));
    EXPECT_EQ(Read(manager, "PrinterOptConfig", static_cast<uint32_t>(config.size())).bytes, config);
    EXPECT_EQ(ListedNames(manager), kPrinter + ";" + kNewName + ";");
    EXPECT_EQ(StoredName(manager), kPrinter);
    EXPECT_EQ(NumberOf(manager, "PageCount"), 6u);
}

TEST(PrinterName, ChangesInTheListTheManagerAndTheDatabase) {
    const Product product;
    AddPrinter("Other", kModel);
    AddPrinter(kNewName, kModel);
    const TvsManager manager = OpenPrinter();
    const TvsManager owner = OpenPrinter(TVS_KIND_OWNER);
    const TvsManager other = OpenPrinter(2, "Other");
    const std::string before = kPrinter + ";Other;";
    const struct {
        const char* what;
        Bytes name;
        int32_t status;
    } refused[] = {
        {"no name", Text(""), PassOn(Answer::WrongSize)},
        {"an empty one", Bytes(260), PassOn(Answer::WrongSize)},
        {"260 characters", Bytes(260, 'x'), PassOn(Answer::WrongSize)},
        {"another printer's", BytesOf("Other"), PassOn(Answer::DatabaseExists)},
        {"its own", BytesOf(kPrinter), TVS_OK},
    };
    const DWORD master = RecordOf(manager)->masterDatabase.handle;
    DWORD writes = 0;
    ASSERT_EQ(GetWriteCount(master, product::kPrinterListVariable, &writes), Answer::Done);
    for (const auto& row : refused) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(Update(manager, "PrinterName", row.name), row.status);
        EXPECT_EQ(ListedNames(manager), before);
        EXPECT_EQ(StoredName(manager), kPrinter);
    }
    DWORD writesNow = 0;
    ASSERT_EQ(GetWriteCount(master, product::kPrinterListVariable, &writesNow), Answer::Done);
    EXPECT_EQ(writesNow, writes);

    EXPECT_EQ(Update(manager, "PrinterName", BytesOf(kNewName)), TVS_OK);
    EXPECT_EQ(ListedNames(manager), kNewName + ";Other;");
    EXPECT_EQ(StoredName(owner), kNewName);
    EXPECT_EQ(RecordOf(manager)->printerName, kNewName);
    EXPECT_EQ(RecordOf(owner)->printerName, kPrinter);
    // It is the same printer under its new name, and its owner can give it back.
    const TvsManager renamed = OpenPrinter(2, kNewName);
    EXPECT_STREQ(RecordOf(renamed)->databaseName, RecordOf(owner)->databaseName);
    EXPECT_EQ(CloseManager(owner), TVS_OK);
    const TvsManager nextOwner = OpenPrinter(TVS_KIND_OWNER, kNewName);
    EXPECT_NE(RecordOf(nextOwner)->flags & ManagerOwnsPrinter, 0u);
    // The longest name there is; back to a free one; and one that the list does not know.
    EXPECT_EQ(Update(renamed, "PrinterName", Bytes(259, 'n')), TVS_OK);
    EXPECT_EQ(Update(nextOwner, "PrinterName", BytesOf(kPrinter)), TVS_OK);
    EXPECT_EQ(ListedNames(manager), before);
    EXPECT_EQ(WriteVariable(RecordOf(manager)->printerDatabase, "PrinterName", "unlisted", 9), Answer::Done);
    EXPECT_EQ(Update(manager, "PrinterName", BytesOf(kNewName)), TVS_E_NOT_NOW);
    EXPECT_EQ(ListedNames(other), before);
    EXPECT_EQ(StoredName(other), "Other");
}
