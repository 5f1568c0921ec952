// The handle table, CloseHandle and the pseudo handles.
//
// State: slots in blocks that are never freed, so they are found without a lock. A handle is the number of its slot
// (bits 2 to 17, from 1) and a generation (bits 18 to 30), which rejects handles that were closed. The word of a slot
// counts its users (pins). The table's reference to the object is released when the handle is closed and the last pin
// is gone.
#include "kernel/handles.h"

#include "base/call.h"
#include "base/lock.h"
#include "base/steps.h"

#include <bit>
#include <errhandlingapi.h>
#include <handleapi.h>
#include <new>
#include <processthreadsapi.h>

namespace oriel {
namespace {

constexpr uint32_t kSlotBits = 16;
constexpr uint32_t kBlockBits = 8;
constexpr uint32_t kSlots = 1U << kSlotBits;
constexpr uint32_t kBlockSlots = 1U << kBlockBits;
constexpr uint32_t kGenerationMask = 0x1FFF;

// The word of a slot: pins in the low half, then whether the handle is open, then the generation.
constexpr uint64_t kPin = 1;
constexpr uint64_t kPinMask = 0xFFFFFFFF;
constexpr uint64_t kOpen = uint64_t{1} << 32;
constexpr uint32_t kGenerationShift = 40;

struct Slot {
    std::atomic<uint64_t> word{0};
    Object* object = nullptr;
    DWORD access = 0;
    uint32_t nextFree = 0;
};

std::atomic<Slot*> g_blocks[kSlots / kBlockSlots];
constinit Lock g_tableLock;
// The list of free slots, oldest first, so that a closed value comes back late. 0 ends the list.
uint32_t g_firstFree ORIEL_LOCK_CHECK(guarded_by(g_tableLock)) = 0;
uint32_t g_lastFree ORIEL_LOCK_CHECK(guarded_by(g_tableLock)) = 0;
uint32_t g_slotCount ORIEL_LOCK_CHECK(guarded_by(g_tableLock)) = 1; // 0 is not a slot

Slot* SlotAt(uint32_t number) {
    Slot* block = g_blocks[number >> kBlockBits].load(std::memory_order_acquire);
    return block != nullptr ? &block[number & (kBlockSlots - 1)] : nullptr;
}

HANDLE ToHandle(uint32_t number, uint64_t word) {
    const auto generation = static_cast<uint32_t>(word >> kGenerationShift) & kGenerationMask;
    return std::bit_cast<HANDLE>(uintptr_t{generation << (kSlotBits + 2) | number << 2});
}

// The slot of a handle, and the generation that it must have. Null for a value that cannot be a handle.
Slot* SlotOf(HANDLE handle, uint64_t& generation, uint32_t& number) {
    const auto value = reinterpret_cast<uintptr_t>(handle);
    if (value > 0x7FFFFFFF) return nullptr;
    number = static_cast<uint32_t>(value >> 2) & (kSlots - 1);
    generation = value >> (kSlotBits + 2);
    return number != 0 ? SlotAt(number) : nullptr;
}

// 0 with the error when all slots are in use or memory is lacking.
uint32_t TakeFreeSlot(DWORD& error) ORIEL_LOCK_CHECK(requires_capability(g_tableLock)) {
    // New slots first, up to kReserve of them: a closed value then stays unknown for longer.
    constexpr uint32_t kReserve = 64;
    if (g_slotCount < kReserve || g_firstFree == 0) {
        if (g_slotCount < kSlots) {
            const uint32_t number = g_slotCount;
            std::atomic<Slot*>& block = g_blocks[number >> kBlockBits];
            if (block.load(std::memory_order_relaxed) == nullptr) {
                auto* slots = new (std::nothrow) Slot[kBlockSlots];
                if (slots == nullptr) {
                    error = ERROR_NOT_ENOUGH_MEMORY;
                    return 0;
                }
                block.store(slots, std::memory_order_release);
            }
            ++g_slotCount;
            return number;
        }
        if (g_firstFree == 0) {
            error = ERROR_NO_SYSTEM_RESOURCES;
            return 0;
        }
    }
    const uint32_t number = g_firstFree;
    g_firstFree = SlotAt(number)->nextFree;
    if (g_firstFree == 0) g_lastFree = 0;
    return number;
}

// For a closed handle without pins: frees its slot and releases the object.
void Retire(uint32_t number, Slot& slot) {
    Object* object = slot.object;
    {
        LockHold hold(g_tableLock);
        const uint64_t generation = ((slot.word.load() >> kGenerationShift) + 1) & kGenerationMask;
        slot.object = nullptr;
        slot.nextFree = 0;
        slot.word.store(generation << kGenerationShift, std::memory_order_release);
        if (g_lastFree != 0)
            SlotAt(g_lastFree)->nextFree = number;
        else
            g_firstFree = number;
        g_lastFree = number;
    }
    // Without the table lock: the drop of an object may close other handles.
    DropReference(object);
}

} // namespace

HANDLE NewHandle(Object* object, DWORD access) {
    TerminationHold noTermination;
    DWORD error = ERROR_SUCCESS;
    uint32_t number = 0;
    {
        LockHold hold(g_tableLock);
        number = TakeFreeSlot(error);
    }
    if (number == 0) {
        DropReference(object);
        return Fail(error, nullptr);
    }
    Slot& slot = *SlotAt(number);
    slot.object = object;
    slot.access = access;
    const uint64_t word = slot.word.load(std::memory_order_relaxed) | kOpen;
    slot.word.store(word, std::memory_order_release);
    return ToHandle(number, word);
}

HandlePin PinHandle(HANDLE handle) {
    uint64_t generation = 0;
    HandlePin pin;
    Slot* slot = SlotOf(handle, generation, pin.slot);
    if (slot == nullptr) return {};
    // One atomic operation checks the generation and adds the pin: the slot cannot be reused in between.
    uint64_t word = slot->word.load(std::memory_order_relaxed);
    do {
        if (word >> kGenerationShift != generation || (word & kOpen) == 0) return {};
    } while (!slot->word.compare_exchange_weak(word, word + kPin, std::memory_order_acquire));
    pin.object = slot->object;
    pin.access = slot->access;
    return pin;
}

void UnpinHandle(const HandlePin& pin) {
    Slot& slot = *SlotAt(pin.slot);
    const uint64_t before = slot.word.fetch_sub(kPin, std::memory_order_acq_rel);
    if ((before & kOpen) == 0 && (before & kPinMask) == 1) Retire(pin.slot, slot);
}

void PrefetchPin(const HandlePin& pin) {
    __builtin_prefetch(SlotAt(pin.slot), 1);
    __builtin_prefetch(pin.object);
}

bool MapRights(DWORD asked, const RightsMap& map, DWORD* rights) {
    constexpr DWORD kGeneric = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL;
    *rights = asked & ~(kGeneric | MAXIMUM_ALLOWED);
    if ((*rights & ~map.all) != 0) return false;
    if ((asked & GENERIC_READ) != 0) *rights |= map.read;
    if ((asked & GENERIC_WRITE) != 0) *rights |= map.write;
    if ((asked & GENERIC_EXECUTE) != 0) *rights |= map.execute;
    if ((asked & GENERIC_ALL) != 0) *rights |= map.all;
    return true;
}

bool CheckPin(const HandlePin& pin, const ObjectType& type, DWORD access) {
    DWORD error = ERROR_SUCCESS;
    if (pin.object == nullptr || pin.object->type != &type)
        error = ERROR_INVALID_HANDLE;
    else if ((pin.access & access) != access)
        error = ERROR_ACCESS_DENIED;
    if (error != ERROR_SUCCESS) SetLastError(error);
    return error == ERROR_SUCCESS;
}

namespace {

// The child keeps the memory of its parent's objects and nothing else of them: threads that do not exist in the child
// may have been using them.
void ForgetHandles() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_tableLock.ForgetOwner();
    g_firstFree = 0;
    g_lastFree = 0;
    for (uint32_t number = 1; number < g_slotCount; ++number) {
        Slot& slot = *SlotAt(number);
        const uint64_t word = slot.word.load();
        // A new generation, so that handles of the parent are invalid in the child.
        slot.object = nullptr;
        slot.word.store((((word >> kGenerationShift) + 1) & kGenerationMask) << kGenerationShift);
        slot.nextFree = 0;
        if (g_lastFree != 0)
            SlotAt(g_lastFree)->nextFree = number;
        else
            g_firstFree = number;
        g_lastFree = number;
    }
}

} // namespace

const ForkSteps kHandlesFork{TakeForFork<g_tableLock>, ReleaseAfterFork<g_tableLock>, ForgetHandles};

} // namespace oriel

using namespace oriel;

BOOL WINAPI CloseHandle(HANDLE handle) {
    if (handle == GetCurrentProcess() || handle == GetCurrentThread()) return TRUE;
    TerminationHold noTermination;
    uint64_t generation = 0;
    uint32_t number = 0;
    Slot* slot = SlotOf(handle, generation, number);
    uint64_t word = slot != nullptr ? slot->word.load(std::memory_order_relaxed) : 0;
    do {
        if (slot == nullptr || word >> kGenerationShift != generation || (word & kOpen) == 0)
            return Fail(ERROR_INVALID_HANDLE);
    } while (!slot->word.compare_exchange_weak(word, word & ~kOpen, std::memory_order_acq_rel));
    if ((word & kPinMask) == 0) Retire(number, *slot);
    return TRUE;
}

BOOL WINAPI GetProcessHandleCount(HANDLE process, LPDWORD count) {
    if (process != GetCurrentProcess() || count == nullptr)
        return Fail(count == nullptr ? ERROR_INVALID_PARAMETER : ERROR_INVALID_HANDLE);
    DWORD open = 0;
    LockHold hold(g_tableLock);
    for (uint32_t number = 1; number < g_slotCount; ++number)
        open += (SlotAt(number)->word.load(std::memory_order_relaxed) & kOpen) != 0;
    *count = open;
    return TRUE;
}

HANDLE WINAPI GetCurrentProcess() {
    return std::bit_cast<HANDLE>(LONG_PTR{-1});
}

HANDLE WINAPI GetCurrentThread() {
    return std::bit_cast<HANDLE>(LONG_PTR{-2});
}
