// The list is in the master database. It is read whole, changed in memory and written back whole, under the database
// mutex. No state.
#include "manager/printer_list.h"

#include "base/memory.h"
#include "base/system.h"
#include "base/timings.h"
#include "machine/objects.h"
#include "machine/process_state.h"
#include "machine/status_service.h"
#include "manager/printer_registration.h"
#include "manager/variables.h"
#include "product/client_kinds.h"
#include "product/guards.h"

#include <algorithm>
#include <stdio.h>
#include <string.h>
#include <utility>

namespace {

constexpr DWORD kListHeader = offsetof(PrinterList, entries);
// A shorter value is not a list: a list has at least one entry.
constexpr DWORD kSmallestList = sizeof(PrinterListEntry);

constexpr uint64_t ListSize(uint64_t entryCount) {
    return kListHeader + sizeof(PrinterListEntry) * entryCount;
}

// The list as read, with room for one more entry.
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

// Fails with an answer, which becomes the last error: the only way to report why an open was refused.
bool Fail(Answer answer) {
    SetLastError(static_cast<DWORD>(answer));
    return false;
}

bool FailWithoutAnswer() {
    return Fail(Answer::Done);
}

// Every process of the product writes the list, so its counts are checked against what was read. The contents of an
// entry are checked where they are used.
bool ReadList(const ManagerDatabase& master, ListBlock* block) {
    DWORD size = 0;
    Answer answer = ReadVariable(master, product::kPrinterListVariable, nullptr, 0, &size);
    if (answer != Answer::Done) return Fail(answer);
    if (size < kSmallestList) return FailWithoutAnswer();
    block->list = static_cast<PrinterList*>(AllocateZeroed(SIZE_T{size} + sizeof(PrinterListEntry)));
    block->outOfMemory = block->list == nullptr;
    if (block->outOfMemory) return FailWithoutAnswer();
    answer = ReadVariable(master, product::kPrinterListVariable, block->list, size, &block->size);
    if (answer != Answer::Done) return Fail(answer);
    if (block->size > size) return FailWithoutAnswer(); // the service does not keep its contract
    if (block->size < kListHeader || ListSize(block->list->entryCount) > block->size) return FailWithoutAnswer();
    return true;
}

// The first entry of that printer, and the highest number seen up to it.
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

bool WantsOwnership(const ManagerRecord* manager, const FormerPlace* former) {
    return manager->clientKind == TVS_KIND_OWNER && (former == nullptr || former->ownedPrinter);
}

// In the list the process is the owner by now; the database mutex keeps others from looking before its event is there.
// An owner that cannot have the event gives way to the next.
void BecomeOwner(ManagerRecord* manager) {
    manager->ownerEvent = CreateNamedEvent(product::OwnerName(g_terminalServer, manager->databaseName));
}

bool HasNumber(const PrinterList* list, uint32_t index) {
    for (uint32_t i = 0; i < list->entryCount; ++i)
        if (list->entries[i].index == index) return true;
    return false;
}

// An entry for the manager's printer with the given number.
void FillEntry(ManagerRecord* manager, const FormerPlace* former, uint32_t index, PrinterListEntry* entry) {
    *entry = {};
    entry->index = index;
    memcpy(entry->printerName, manager->printerName, sizeof entry->printerName);
    snprintf(entry->databaseName, sizeof entry->databaseName, "%s%u", product::kMasterDatabase,
             static_cast<unsigned>(index));
    if (LookUpDriverName(manager) && strlen(manager->driverName) < sizeof entry->driverName)
        strcpy(entry->driverName, manager->driverName);
    if (WantsOwnership(manager, former)) entry->ownerProcessId = GetCurrentProcessId();
}

bool UseExistingEntry(ManagerRecord* manager, const FormerPlace* former, ListBlock* block, PrinterListEntry* entry) {
    if (!IsTerminated(entry->databaseName) || entry->databaseName[0] == '\0') return FailWithoutAnswer();
    // An unterminated name is not a name; an unterminated driver is unknown.
    if (IsTerminated(entry->driverName) && entry->driverName[0] != '\0')
        manager->driverName = CopyText(entry->driverName);
    const bool becomesOwner = WantsOwnership(manager, former) && !product::HasOwner(g_terminalServer, *entry);
    if (becomesOwner) {
        entry->ownerProcessId = GetCurrentProcessId();
        // An owner whose process id is not in the list counts as none.
        const Answer answer =
            WriteVariable(manager->masterDatabase, product::kPrinterListVariable, block->list, block->size);
        if (answer != Answer::Done) return Fail(answer);
    }
    TakeOverEntry(manager, *entry);
    if (becomesOwner) BecomeOwner(manager);
    return true;
}

bool AddEntry(ManagerRecord* manager, const FormerPlace* former, ListBlock* block, uint32_t highestIndex) {
    if (former == nullptr && kClientKinds[manager->clientKind].needsProduct && !IsOwnProcess())
        return FailWithoutAnswer();
    PrinterList* list = block->list;
    // A printer keeps its number for good, so no number is used twice.
    const bool keepsNumber = former != nullptr && !HasNumber(list, former->printerIndex);
    if (!keepsNumber && highestIndex == 0xFFFFFFFF) return FailWithoutAnswer(); // all numbers are used
    PrinterListEntry* entry = &list->entries[list->entryCount];
    FillEntry(manager, former, keepsNumber ? former->printerIndex : highestIndex + 1, entry);
    ++list->entryCount;
    const DWORD size = static_cast<DWORD>(ListSize(list->entryCount));
    list->storedLength = size - static_cast<DWORD>(sizeof list->storedLength);
    const Answer answer = WriteVariable(manager->masterDatabase, product::kPrinterListVariable, list, size);
    if (answer != Answer::Done) return Fail(answer);
    TakeOverEntry(manager, *entry);
    if (WantsOwnership(manager, former)) BecomeOwner(manager);
    return true;
}

bool FindOrAddPrinter(ManagerRecord* manager, const FormerPlace* former) {
    ListBlock block;
    if (!ReadList(manager->masterDatabase, &block)) return false;
    uint32_t highestIndex = 0;
    PrinterListEntry* entry = FindPrinter(block.list, manager->printerName, &highestIndex);
    return entry != nullptr ? UseExistingEntry(manager, former, &block, entry)
                            : AddEntry(manager, former, &block, highestIndex);
}

// The first open on the machine, whatever its client kind.
bool MakeList(ManagerRecord* manager, const FormerPlace* former) {
    const HeapBlock block(sizeof(PrinterList));
    if (block.memory == nullptr) return FailWithoutAnswer();
    PrinterList* list = reinterpret_cast<PrinterList*>(block.memory);
    list->storedLength = sizeof *list - sizeof list->storedLength;
    list->entryCount = 1;
    FillEntry(manager, former, former != nullptr ? former->printerIndex : 1, &list->entries[0]);
    const DatabaseHandle master = manager->masterDatabase.handle;
    Answer answer = CreateVariable(master, product::kPrinterListVariable, product::kTypeVariableLength,
                                   sizeof kEmptyVariableValue, kEmptyVariableValue);
    if (answer == Answer::Done) answer = WriteVariable(master, product::kPrinterListVariable, list, sizeof *list);
    if (answer == Answer::Done) answer = EndDatabaseInitialization(master); // others wait for this
    if (answer != Answer::Done) return Fail(answer);
    TakeOverEntry(manager, list->entries[0]);
    if (WantsOwnership(manager, former)) BecomeOwner(manager);
    return true;
}

} // namespace

bool AttachPrinterDatabase(ManagerRecord* manager, const FormerPlace* former) {
    EnteredPrinter entered;
    const Answer answer = CreateOrOpenMaster(manager->printerName, &entered);
    if (answer != Answer::Done) return Fail(answer);
    const auto& [master, printer, name] = entered;
    TakeDatabase(manager->masterDatabase, master);
    manager->serviceInstance = master.instance;
    if (!(master.created ? MakeList(manager, former) : FindOrAddPrinter(manager, former))) {
        const DWORD reason = GetLastError(); // the close may change it
        CloseDatabases(master.handle, printer.handle);
        manager->masterDatabase.handle = 0;
        SetLastError(reason);
        return false;
    }
    if (printer.handle != 0 && strcmp(name, manager->databaseName) == 0)
        TakeDatabase(manager->printerDatabase, printer);
    else if (printer.handle != 0)
        CloseDatabase(printer.handle);
    if (manager->ownerProcessId != 0) AddKindBits(kOwnerKindBit);
    if (WantsOwnership(manager, former) && manager->ownerProcessId == GetCurrentProcessId())
        manager->flags |= ManagerOwnsPrinter;
    LookUpDriverName(manager); // the entry may be older than the knowledge of the driver
    SetLastError(ERROR_SUCCESS);
    return true;
}

Renaming RenameInPrinterList(const ManagerDatabase& master, const PrinterNameText& oldName,
                             const PrinterNameText& newName) {
    ListBlock block;
    if (!ReadList(master, &block)) return block.outOfMemory ? Renaming::NoMemory : Renaming::UnknownPrinter;
    uint32_t highestIndex = 0;
    PrinterListEntry* entry = FindPrinter(block.list, oldName.text, &highestIndex);
    if (entry == nullptr) return Renaming::UnknownPrinter;
    // With two entries of one name nobody would find the database of the second one.
    if (FindPrinter(block.list, newName.text, &highestIndex) != nullptr) return Renaming::NameTaken;
    memcpy(entry->printerName, newName.text, sizeof entry->printerName);
    switch (WriteVariable(master, product::kPrinterListVariable, block.list, block.size)) {
    case Answer::Done:
        return Renaming::Done;
    case Answer::AccessDenied:
        return Renaming::Denied;
    default:
        return Renaming::NotStored;
    }
}

void CloseOwnerEvent(ManagerRecord* manager) {
    if (manager->ownerEvent != nullptr) CloseHandle(std::exchange(manager->ownerEvent, nullptr));
}

bool AcquireInClose(const ManagerRecord* manager, MutexHold& lock) {
    // The holder of the mutex waits for the service, and a process that ends also needs the service.
    const DWORD start = GetTickCount();
    while (!lock.Acquire(manager->databaseMutex, std::min(LeftForCalls(), g_timings.databaseLockBound))) {
        product::DatabaseInfo info;
        if (lock.result != WAIT_TIMEOUT || GetTickCount() - start >= g_timings.databaseLockBound) return false;
        GetDatabaseInfo(manager->masterDatabase, &info);
        if (CallsWereGivenUp()) return false;
    }
    return true;
}

namespace {

// False when there is no memory for the list.
bool TryToReleaseOwnership(ManagerRecord* manager) {
    MutexHold lock;
    if (!AcquireInClose(manager, lock)) return true;
    ListBlock block;
    if (!ReadList(manager->masterDatabase, &block)) return !block.outOfMemory;
    for (uint32_t i = 0; i < block.list->entryCount; ++i) {
        PrinterListEntry& entry = block.list->entries[i];
        // By number: another process may have renamed the printer.
        if (entry.ownerProcessId != manager->ownerProcessId || entry.index != manager->printerIndex) continue;
        entry.ownerProcessId = 0;
        manager->ownerProcessId = 0;
        WriteVariable(manager->masterDatabase, product::kPrinterListVariable, block.list, block.size);
        break;
    }
    return true;
}

} // namespace

void ReleasePrinterOwnership(ManagerRecord* manager) {
    // The entry of a printer that is not released keeps its process id, and the next owner finds no event.
    for (DWORD pause = 0; !TryToReleaseOwnership(manager) && pause < g_timings.releasePauses; ++pause)
        Sleep(g_timings.memoryPause);
    CloseOwnerEvent(manager);
}
