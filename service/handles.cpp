#include "handles.h"

#include "clients.h"

#include <exception>
#include <random>

namespace {

Lock g_handlesLock;

// A slot is free while its handle is 0. What a reader finds beside the handle is valid when the handle is still the
// same afterwards.
struct Slot {
    std::atomic<DWORD> handle = 0;
    DWORD previousOfGroup GUARDED_BY(g_handlesLock) = 0;
    DWORD nextOfGroup GUARDED_BY(g_handlesLock) = 0;
    std::atomic<Group*> group = nullptr;
    std::atomic<Database*> database = nullptr;
};

constinit Slot g_slots[kHandleSlots]; // all zero: pages without handles take no memory
DWORD g_nextHandle GUARDED_BY(g_handlesLock) = 1;

Slot& SlotOf(DWORD handle) {
    return g_slots[handle % kHandleSlots];
}

void Free(Group& group, Slot& slot) REQUIRES(g_handlesLock) {
    DWORD& toThis =
        slot.previousOfGroup == kNoHandleSlot ? group.firstHandleSlot : g_slots[slot.previousOfGroup].nextOfGroup;
    toThis = slot.nextOfGroup;
    if (slot.nextOfGroup != kNoHandleSlot) g_slots[slot.nextOfGroup].previousOfGroup = slot.previousOfGroup;
    slot.handle.store(0, std::memory_order_release);
    GiveBack(*group.account, kShareHandles, 1);
}

} // namespace

void InitialiseHandles() {
    LockHold hold{g_handlesLock};
    try {
        g_nextHandle = std::random_device{}();
    } catch (const std::exception&) {
        g_nextHandle = GetTickCount() * 2654435761U; // enough against a mix-up; handles are no secrets
    }
}

DWORD ReserveHandle(Group& group) {
    if (!Charge(*group.account, kShareHandles, 1)) return 0;
    LockHold hold{g_handlesLock};
    // At most half of the slots are in use: kBounds.
    while (g_nextHandle == 0 || SlotOf(g_nextHandle).handle.load(std::memory_order_relaxed) != 0)
        ++g_nextHandle;
    const DWORD handle = g_nextHandle++;
    Slot& slot = SlotOf(handle);
    slot.group.store(&group, std::memory_order_release);
    slot.database.store(nullptr, std::memory_order_release);
    slot.previousOfGroup = kNoHandleSlot;
    slot.nextOfGroup = group.firstHandleSlot;
    if (slot.nextOfGroup != kNoHandleSlot) g_slots[slot.nextOfGroup].previousOfGroup = handle % kHandleSlots;
    group.firstHandleSlot = handle % kHandleSlots;
    slot.handle.store(handle, std::memory_order_release);
    return handle;
}

void SetHandle(DWORD handle, Database& database) {
    database.openHandles.fetch_add(1);
    SlotOf(handle).database.store(&database, std::memory_order_release);
}

void CancelHandle(Group& group, DWORD handle) {
    LockHold hold{g_handlesLock};
    Free(group, SlotOf(handle));
}

Database* FindHandle(const Group& group, DWORD handle) {
    const Slot& slot = SlotOf(handle);
    if (handle == 0 || slot.handle.load(std::memory_order_acquire) != handle) return nullptr;
    const Group* owner = slot.group.load(std::memory_order_acquire);
    Database* database = slot.database.load(std::memory_order_acquire);
    return owner == &group && slot.handle.load(std::memory_order_relaxed) == handle ? database : nullptr;
}

DWORD HandlesOf(const Group& group, const Database& database) {
    LockHold hold{g_handlesLock};
    DWORD count = 0;
    for (DWORD slot = group.firstHandleSlot; slot != kNoHandleSlot; slot = g_slots[slot].nextOfGroup)
        count += g_slots[slot].database.load(std::memory_order_relaxed) == &database;
    return count;
}

bool CloseHandleOf(Group& group, DWORD handle) {
    Database* database = nullptr;
    {
        LockHold hold{g_handlesLock};
        database = FindHandle(group, handle);
        if (!database) return false;
        Free(group, SlotOf(handle));
    }
    HandleIsGone(*database, handle);
    return true;
}

void CloseAllHandles(Group& group) {
    for (;;) {
        DWORD handle = 0;
        {
            LockHold hold{g_handlesLock};
            if (group.firstHandleSlot == kNoHandleSlot) return;
            handle = g_slots[group.firstHandleSlot].handle.load(std::memory_order_relaxed);
        }
        CloseHandleOf(group, handle);
    }
}
