// State: the copy of the printer list, and the lock of its writers.
#include "printers.h"

#include "product/guards.h"
#include "product/registry_names.h"

#include "signals.h"

#include "product/object_names.h"
#include "product/printer_list.h"

#include <algorithm>
#include <new>
#include <optional>
#include <stdio.h>
#include <string.h>
#include <winspool.h>

using namespace product;

namespace {

// ---- kept access control lists: registry values, one for each printer, with the variable's bytes

LSTATUS OpenLists(REGSAM access, RegistryKey* key) {
    const std::string path = std::string(kProductKey) + "\\Access Control Lists";
    return access == KEY_WRITE ? RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                                 access, nullptr, key->Receive(), nullptr)
                               : RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, key->Receive());
}

// Names of two printers may differ only in case, names of values may not, and a printer's name may have any byte but
// NUL. So everything but lower-case letters, digits, blanks, "-" and "_" is written as %XX.
std::string ValueName(std::string_view printer) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string name;
    for (const char c : printer) {
        const auto byte = static_cast<BYTE>(c);
        const bool plain = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == ' ' || c == '-' || c == '_';
        if (plain)
            name += c;
        else
            name.append({'%', kDigits[byte >> 4], kDigits[byte & 15]});
    }
    return name;
}

LSTATUS KeepAccessList(std::string_view printer, const BYTE* list, DWORD size) {
    try {
        RegistryKey lists;
        if (const LSTATUS status = OpenLists(KEY_WRITE, &lists); status != ERROR_SUCCESS) return status;
        return RegSetValueExA(lists.Get(), ValueName(printer).c_str(), 0, REG_BINARY, list, size);
    } catch (const std::bad_alloc&) {
        return ERROR_OUTOFMEMORY;
    }
}

void ForgetAccessList(std::string_view printer) {
    try {
        RegistryKey lists;
        if (OpenLists(KEY_WRITE, &lists) == ERROR_SUCCESS) RegDeleteValueA(lists.Get(), ValueName(printer).c_str());
    } catch (const std::bad_alloc&) { // the list stays, for a printer that nobody opens
    }
}

std::optional<std::vector<BYTE>> KeptAccessList(std::string_view printer) {
    try {
        RegistryKey lists;
        if (OpenLists(KEY_QUERY_VALUE, &lists) != ERROR_SUCCESS) return {};
        const std::string name = ValueName(printer);
        DWORD type = 0;
        DWORD size = 0;
        if (RegQueryValueExA(lists.Get(), name.c_str(), nullptr, &type, nullptr, &size) != ERROR_SUCCESS) return {};
        std::vector<BYTE> list(size);
        if (RegQueryValueExA(lists.Get(), name.c_str(), nullptr, &type, list.data(), &size) != ERROR_SUCCESS ||
            type != REG_BINARY)
            return {};
        list.resize(size);
        return list;
    } catch (const std::bad_alloc&) {
        return {};
    }
}

// ---- the printer list

struct ListCopy {
    const Variable* variable = nullptr;
    DWORD sequence = 0;
    std::vector<BYTE> bytes;
};

Lock g_printersLock; // before a variable's
ListCopy g_list GUARDED_BY(g_printersLock);

// The list as it is now. False: no memory.
bool RefreshFrom(const Variable& variable) REQUIRES(g_printersLock) {
    for (;;) {
        // The count is taken first, so it is never ahead of the value. A newer value is read again the next time.
        const DWORD sequence = SequenceBegin(variable);
        if (g_list.variable == &variable && g_list.sequence == sequence) return true;
        const ValueState state = ReadValue(variable, g_list.bytes.data(), static_cast<DWORD>(g_list.bytes.size()));
        const bool fits = state.size <= g_list.bytes.size();
        g_list.variable = nullptr;
        try {
            g_list.bytes.resize(state.size);
        } catch (const std::bad_alloc&) {
            return false;
        }
        if (!fits) continue; // with room for it now
        g_list.variable = &variable;
        g_list.sequence = sequence;
        return true;
    }
}

bool RefreshList() REQUIRES(g_printersLock) {
    const Database* master = FindDatabase(kMasterDatabase);
    if (!master || master->state.load(std::memory_order_acquire) != DatabaseState::Ready) return false;
    const Variable* variable = FindVariable(*master, kPrinterListVariable);
    return variable && variable->type != kTypeComposite && RefreshFrom(*variable);
}

std::string_view PrinterOfDatabase(std::string_view database) REQUIRES(g_printersLock) {
    if (!RefreshList()) return {};
    return FindListedDatabase(g_list.bytes.data(), g_list.bytes.size(), database).name;
}

// ---- what anybody may change in the list

// A value seen as a list. It may be malformed and unaligned.
struct ListView {
    const BYTE* bytes = nullptr;
    DWORD count = 0;
    bool whole = false; // it has its entries and no other bytes

    ListView(const BYTE* value, SIZE_T size) : bytes(value) {
        constexpr SIZE_T kHeader = offsetof(PrinterList, entries);
        if (size < kHeader) return;
        uint32_t length = 0;
        memcpy(&length, value, sizeof length);
        memcpy(&count, value + offsetof(PrinterList, entryCount), sizeof count);
        whole = length == size - sizeof length && size - kHeader == ULONGLONG{count} * sizeof(PrinterListEntry);
    }
    PrinterListEntry Entry(DWORD index) const {
        PrinterListEntry entry;
        memcpy(&entry, bytes + offsetof(PrinterList, entries) + index * sizeof entry, sizeof entry);
        return entry;
    }
};

template <SIZE_T size>
std::string_view TextOf(const char (&field)[size]) {
    return {field, strnlen(field, size)};
}

// A process may take or release the ownership for itself only, and not from another that owns the printer.
bool OwnsOrReleases(PrinterListEntry before, const PrinterListEntry& after, DWORD process) {
    const uint32_t from = before.ownerProcessId;
    const uint32_t to = after.ownerProcessId;
    const auto isTaken = [&, was = before] { return to == process && !HasOwner(MachineIsTerminalServer(), was); };
    before.ownerProcessId = to;
    return memcmp(&before, &after, sizeof after) == 0 && (from == to || (from == process && to == 0) || isTaken());
}

// A printer may keep its number from an earlier service. The step keeps one user from exhausting the numbers.
constexpr uint32_t kNumberStep = 65536;

bool IsNewPrinter(const ListView& before, const PrinterListEntry& entry, DWORD process) {
    uint32_t highest = 0;
    for (DWORD i = 0; i < before.count; ++i) {
        const PrinterListEntry present = before.Entry(i);
        if (present.index == entry.index || TextOf(present.printerName) == TextOf(entry.printerName)) return false;
        highest = std::max(highest, present.index);
    }
    if (entry.index > highest && entry.index - highest > kNumberStep) return false;
    char database[sizeof entry.databaseName];
    snprintf(database, sizeof database, "%s%u", kMasterDatabase, static_cast<unsigned>(entry.index));
    const std::string_view printer = TextOf(entry.printerName);
    return entry.index != 0 && TextOf(entry.databaseName) == database && !printer.empty() &&
           printer.size() < sizeof entry.printerName && TextOf(entry.driverName).size() < sizeof entry.driverName &&
           (entry.ownerProcessId == 0 || entry.ownerProcessId == process);
}

// Whether the machine has the printer. The spooler may have to ask a print server, which takes up to two seconds.
bool IsOnMachine(const char* printer) {
    const RegistryKey printers = OpenKey(HKEY_LOCAL_MACHINE, kPrintersKey, KEY_QUERY_VALUE);
    if (printers && OpenKey(printers.Get(), PrinterKeyName(printer).name, KEY_QUERY_VALUE)) return true;
    HANDLE opened = nullptr;
    if (!OpenPrinterA(const_cast<LPSTR>(printer), &opened, nullptr)) return false;
    ClosePrinter(opened);
    return true;
}

// The printer that the value may add: its last entry, when its database does not exist yet. Whoever could add what the
// machine does not have could fill the list and the service with names. False: that printer is not on the machine.
bool AddsWhatIsThere(const ListView& after) {
    if (!after.whole || after.count == 0) return true;
    const PrinterListEntry last = after.Entry(after.count - 1);
    if (FindDatabase(TextOf(last.databaseName))) return true;
    return TextOf(last.printerName).size() < sizeof last.printerName && IsOnMachine(last.printerName);
}

// Whether the value adds at most one printer and otherwise changes only this process's ownership.
bool IsEverybodys(const ListView& before, const ListView& after, DWORD process) {
    if (!before.whole || !after.whole) return false;
    if (after.count != before.count && after.count != before.count + 1) return false;
    for (DWORD i = 0; i < before.count; ++i)
        if (!OwnsOrReleases(before.Entry(i), after.Entry(i), process)) return false;
    return after.count == before.count || IsNewPrinter(before, after.Entry(before.count), process);
}

// ---- renamed printers

struct Renamed {
    std::string before;
    std::string after;
    std::optional<std::vector<BYTE>> kept;
};

// Throws std::bad_alloc.
std::vector<Renamed> RenamedPrinters(const ListView& before, const ListView& after) {
    std::vector<Renamed> all;
    if (!before.whole || !after.whole) return all;
    for (DWORD i = 0; i < std::min(before.count, after.count); ++i) {
        const PrinterListEntry was = before.Entry(i);
        const PrinterListEntry is = after.Entry(i);
        if (TextOf(was.databaseName) != TextOf(is.databaseName) || TextOf(was.printerName) == TextOf(is.printerName))
            continue;
        const std::string name{TextOf(was.printerName)};
        all.push_back({name, std::string{TextOf(is.printerName)}, KeptAccessList(name)});
    }
    return all;
}

// Printers may swap names, so all lists are forgotten before any is kept again.
void MoveAccessLists(const std::vector<Renamed>& all) {
    for (const Renamed& renamed : all) {
        ForgetAccessList(renamed.before);
        ForgetAccessList(renamed.after);
    }
    for (const Renamed& renamed : all)
        if (renamed.kept) KeepAccessList(renamed.after, renamed.kept->data(), static_cast<DWORD>(renamed.kept->size()));
}

} // namespace

Database* DatabaseOfPrinter(std::string_view printer) {
    LockHold hold{g_printersLock};
    if (!RefreshList()) return nullptr;
    Database* database = FindDatabase(FindListedPrinter(g_list.bytes.data(), g_list.bytes.size(), printer).database);
    return database && database->state.load(std::memory_order_acquire) == DatabaseState::Ready ? database : nullptr;
}

bool IsListed(std::string_view database, std::string_view printer) {
    LockHold hold{g_printersLock};
    const std::string_view listed = PrinterOfDatabase(database);
    return !listed.empty() && (printer.empty() || listed == printer);
}

namespace {

// False: only administrators may make this change, and the caller is not known to be one.
bool StoreList(Database& database, Variable& variable, const Caller& caller, bool administrator, const BYTE* bytes,
               DWORD size, Written* written, ServiceStatus* status) {
    const bool addsWhatIsThere = administrator || AddsWhatIsThere({bytes, size});
    LockHold hold{g_printersLock};
    *status = kOutOfMemory;
    if (!RefreshFrom(variable)) return true;
    const ListView before{g_list.bytes.data(), g_list.bytes.size()};
    const ListView after{bytes, size};
    const bool everybodys = addsWhatIsThere && IsEverybodys(before, after, caller.association.Process());
    if (!everybodys && !administrator) return false;
    const std::vector<Renamed> renamed = everybodys ? std::vector<Renamed>{} : RenamedPrinters(before, after);
    *status = WriteValue(variable, database.store, *caller.group.account, bytes, size, &written->changed);
    if (*status == kDone) MoveAccessLists(renamed);
    return true;
}

} // namespace

ServiceStatus WritePrinterList(Database& database, Variable& variable, const Caller& caller, const BYTE* bytes,
                               DWORD size) {
    Written written{&variable, false};
    ServiceStatus status = kDone;
    try {
        // Finding out who is an administrator may take long, so it is done without the lock.
        if (!StoreList(database, variable, caller, false, bytes, size, &written, &status)) {
            if (!IsAdministrator(caller)) return kAccessDenied;
            StoreList(database, variable, caller, true, bytes, size, &written, &status);
        }
    } catch (const std::bad_alloc&) {
        return kOutOfMemory;
    }
    if (status == kDone) SignalWritten(database, written);
    return status;
}

ServiceStatus WriteAccessList(Database& database, Variable& variable, Account& account, const BYTE* bytes, DWORD size,
                              bool* changed) {
    LockHold hold{g_printersLock};
    const std::string_view printer = PrinterOfDatabase(database.name);
    if (printer.empty()) return WriteValue(variable, database.store, account, bytes, size, changed);
    const std::optional<std::vector<BYTE>> kept = KeptAccessList(printer);
    if (!kept || !std::equal(kept->begin(), kept->end(), bytes, bytes + size))
        if (const LSTATUS status = KeepAccessList(printer, bytes, size); status != ERROR_SUCCESS)
            return static_cast<ServiceStatus>(status);
    const ServiceStatus status = WriteValue(variable, database.store, account, bytes, size, changed);
    if (status == kDone) return kDone;
    if (kept)
        KeepAccessList(printer, kept->data(), static_cast<DWORD>(kept->size()));
    else
        ForgetAccessList(printer);
    return status;
}

bool FirstAccessList(const Database& database, const Caller& caller, const BYTE* bytes, DWORD size,
                     std::vector<BYTE>& first) {
    try {
        std::optional<std::vector<BYTE>> kept;
        {
            LockHold hold{g_printersLock};
            const std::string_view printer = PrinterOfDatabase(database.name);
            if (!printer.empty()) kept = KeptAccessList(printer);
        }
        constexpr BYTE kEmpty[] = {4, 0, 0, 0, 0, 0, 0, 0};
        if (kept && kept->size() <= kValueSizeMax)
            first = std::move(*kept);
        else if (IsAdministrator(caller))
            first.assign(bytes, bytes + size);
        else
            first.assign(std::begin(kEmpty), std::end(kEmpty));
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}
