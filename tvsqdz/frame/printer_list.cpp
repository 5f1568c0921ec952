// The list lies in the master database. It is read whole, changed here and written back whole, under the database
// mutex.
#include "frame/printer_list.h"

#include "catalogue/variable_table.h"
#include "dblink/database_opening.h"
#include "frame/client_kinds.h"
#include "frame/guards.h"
#include "frame/heap.h"
#include "frame/own_process.h"
#include "frame/printer_registration.h"
#include "frame/process_state.h"

#include <stdio.h>
#include <string.h>

namespace {

constexpr DWORD kListHeader = offsetof(PrinterList, entries);
// Shorter values are no list: it has had an entry ever since it exists.
constexpr DWORD kSmallestList = sizeof(PrinterListEntry);

constexpr uint64_t ListSize(uint64_t entryCount) {
    return kListHeader + sizeof(PrinterListEntry) * entryCount;
}

// The list as it was read, with room for one more entry.
struct ListBlock {
    ~ListBlock() { FreeBlock(list); }

    PrinterList* list = nullptr;
    DWORD size = 0; // of the value
    bool outOfMemory = false;
};

template <size_t size>
bool IsTerminated(const char (&text)[size]) {
    return memchr(text, '\0', size) != nullptr;
}

// Fails with an answer, which becomes the last error: the one channel that tells why an open was refused.
bool Fail(Answer answer) {
    SetLastError(static_cast<DWORD>(answer));
    return false;
}

bool FailWithoutAnswer() {
    return Fail(Answer::Done);
}

// The list is written by every process of the product: its counts are checked against what was read. What single
// entries hold is checked where one is used.
bool ReadList(DatabaseHandle master, ListBlock* block) {
    DWORD size = 0;
    Answer answer = ReadVariable(master, dblink::kPrinterListVariable, nullptr, 0, &size);
    if (answer != Answer::Done) return Fail(answer);
    if (size < kSmallestList) return FailWithoutAnswer();
    block->list = static_cast<PrinterList*>(AllocateZeroed(SIZE_T{size} + sizeof(PrinterListEntry)));
    block->outOfMemory = block->list == nullptr;
    if (block->outOfMemory) return FailWithoutAnswer();
    answer = ReadVariable(master, dblink::kPrinterListVariable, block->list, size, &block->size);
    if (answer != Answer::Done) return Fail(answer);
    if (block->size > size) return FailWithoutAnswer(); // not what the service promises
    if (block->size < kListHeader || ListSize(block->list->entryCount) > block->size) return FailWithoutAnswer();
    return true;
}

// The first entry of that printer; and the highest number seen up to it.
PrinterListEntry* FindPrinter(PrinterList* list, const char* printerName, uint32_t* highestIndex) {
    *highestIndex = 0;
    for (uint32_t i = 0; i < list->entryCount; ++i) {
        PrinterListEntry* entry = &list->entries[i];
        if (entry->index > *highestIndex) *highestIndex = entry->index;
        if (IsTerminated(entry->printerName) && strcmp(entry->printerName, printerName) == 0) return entry;
    }
    return nullptr;
}

void TakeOverEntry(ManagerRecord* manager, const PrinterListEntry& entry) {
    memcpy(manager->printerName, entry.printerName, sizeof entry.printerName);
    memcpy(manager->databaseName, entry.databaseName, sizeof entry.databaseName);
    manager->printerIndex = entry.index;
    manager->ownerProcessId = entry.ownerProcessId;
}

// An entry for the manager's printer under the number given.
void FillEntry(ManagerRecord* manager, uint32_t index, PrinterListEntry* entry) {
    *entry = {};
    entry->index = index;
    memcpy(entry->printerName, manager->printerName, sizeof entry->printerName);
    snprintf(entry->databaseName, sizeof entry->databaseName, "%s%u", dblink::kMasterDatabase,
             static_cast<unsigned>(index));
    if (LookUpDriverName(manager) && strlen(manager->driverName) < sizeof entry->driverName)
        strcpy(entry->driverName, manager->driverName);
    if (manager->clientKind == TVS_KIND_OWNER) entry->ownerProcessId = GetCurrentProcessId();
}

bool UseExistingEntry(ManagerRecord* manager, ListBlock* block, PrinterListEntry* entry) {
    if (!IsTerminated(entry->databaseName) || entry->databaseName[0] == '\0' || !IsTerminated(entry->driverName))
        return FailWithoutAnswer();
    if (entry->driverName[0] != '\0') manager->driverName = CopyText(entry->driverName);
    if (entry->ownerProcessId == 0 && manager->clientKind == TVS_KIND_OWNER) {
        entry->ownerProcessId = GetCurrentProcessId();
        // An owner that the list does not tell of is none.
        const Answer answer =
            WriteVariable(manager->masterDatabase, dblink::kPrinterListVariable, block->list, block->size);
        if (answer != Answer::Done) return Fail(answer);
    }
    TakeOverEntry(manager, *entry);
    return true;
}

bool AddEntry(ManagerRecord* manager, ListBlock* block, uint32_t highestIndex) {
    if (kClientKinds[manager->clientKind].needsProduct && !IsOwnProcess()) return FailWithoutAnswer();
    // A printer keeps its number for good, so none is used twice.
    if (highestIndex == 0xFFFFFFFF) return FailWithoutAnswer(); // no number is left
    PrinterList* list = block->list;
    PrinterListEntry* entry = &list->entries[list->entryCount];
    FillEntry(manager, highestIndex + 1, entry);
    ++list->entryCount;
    const DWORD size = static_cast<DWORD>(ListSize(list->entryCount));
    list->storedLength = size - static_cast<DWORD>(sizeof list->storedLength);
    const Answer answer = WriteVariable(manager->masterDatabase, dblink::kPrinterListVariable, list, size);
    if (answer != Answer::Done) return Fail(answer);
    TakeOverEntry(manager, *entry);
    return true;
}

bool FindOrAddPrinter(ManagerRecord* manager) {
    ListBlock block;
    if (!ReadList(manager->masterDatabase, &block)) return false;
    uint32_t highestIndex = 0;
    PrinterListEntry* entry = FindPrinter(block.list, manager->printerName, &highestIndex);
    return entry != nullptr ? UseExistingEntry(manager, &block, entry) : AddEntry(manager, &block, highestIndex);
}

// The machine's first open, whatever its client kind.
bool MakeList(ManagerRecord* manager) {
    const HeapBlock block(sizeof(PrinterList));
    if (block.memory == nullptr) return FailWithoutAnswer();
    PrinterList* list = reinterpret_cast<PrinterList*>(block.memory);
    list->storedLength = sizeof *list - sizeof list->storedLength;
    list->entryCount = 1;
    FillEntry(manager, 1, &list->entries[0]);
    const DatabaseHandle master = manager->masterDatabase;
    Answer answer = CreateVariable(master, dblink::kPrinterListVariable, dblink::kTypeVariableLength,
                                   sizeof kEmptyVariableValue, kEmptyVariableValue);
    if (answer == Answer::Done) answer = WriteVariable(master, dblink::kPrinterListVariable, list, sizeof *list);
    if (answer == Answer::Done) answer = EndDatabaseInitialization(master); // others wait for it
    if (answer != Answer::Done) return Fail(answer);
    TakeOverEntry(manager, list->entries[0]);
    return true;
}

} // namespace

bool AttachPrinterDatabase(ManagerRecord* manager) {
    bool created = false;
    const Answer answer = CreateOrOpenDatabase(dblink::kMasterDatabase, &manager->masterDatabase, &created);
    if (answer != Answer::Done) return Fail(answer);
    if (!(created ? MakeList(manager) : FindOrAddPrinter(manager))) {
        const DWORD reason = GetLastError(); // the close may change it
        CloseDatabase(manager->masterDatabase);
        manager->masterDatabase = 0;
        SetLastError(reason);
        return false;
    }
    if (manager->ownerProcessId != 0) AddKindBits(kOwnerKindBit);
    if (manager->clientKind == TVS_KIND_OWNER && manager->ownerProcessId == GetCurrentProcessId())
        manager->flags |= ManagerOwnsPrinter;
    LookUpDriverName(manager); // an entry from before the driver was known
    SetLastError(ERROR_SUCCESS);
    return true;
}

Renaming RenameInPrinterList(DatabaseHandle master, const PrinterNameText& oldName, const PrinterNameText& newName) {
    ListBlock block;
    if (!ReadList(master, &block)) return block.outOfMemory ? Renaming::NoMemory : Renaming::UnknownPrinter;
    uint32_t highestIndex = 0;
    PrinterListEntry* entry = FindPrinter(block.list, oldName.text, &highestIndex);
    if (entry == nullptr) return Renaming::UnknownPrinter;
    // Of two entries with one name nobody would find the later one's database again.
    if (FindPrinter(block.list, newName.text, &highestIndex) != nullptr) return Renaming::NameTaken;
    memcpy(entry->printerName, newName.text, sizeof entry->printerName);
    return WriteVariable(master, dblink::kPrinterListVariable, block.list, block.size) == Answer::Done
               ? Renaming::Done
               : Renaming::NotStored;
}

void ReleasePrinterOwnership(ManagerRecord* manager) {
    const MutexHold lock(manager->databaseMutex);
    ListBlock block;
    if (!ReadList(manager->masterDatabase, &block)) return;
    for (uint32_t i = 0; i < block.list->entryCount; ++i) {
        PrinterListEntry& entry = block.list->entries[i];
        // By its number: the printer may have been renamed by another process.
        if (entry.ownerProcessId != manager->ownerProcessId || entry.index != manager->printerIndex) continue;
        entry.ownerProcessId = 0;
        manager->ownerProcessId = 0;
        WriteVariable(manager->masterDatabase, dblink::kPrinterListVariable, block.list, block.size);
        return;
    }
}
