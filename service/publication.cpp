// State: the record of life, and what names are made of.
#include "publication.h"

#include "product/object_names.h"
#include "product/service_life.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <stdio.h>
#include <string.h>

using namespace product;
using Word = std::atomic<SIZE_T>;

struct Publication {
    Account* account = nullptr; // charged for `size` bytes
    HANDLE section = nullptr;
    BYTE* base = nullptr;
    DWORD size = 0;
    KernelName name;
    DWORD* capacities = nullptr; // of the slots' values; guarded by their writers' locks
    Publication* replaced = nullptr;
    Lock lock; // the last one to be taken
    DWORD used GUARDED_BY(lock) = 0;
};

namespace {

constexpr int kNamesTried = 16;
constexpr DWORD kAlignment = 8;

bool g_terminalServer = false;
ServiceInstance g_run = 0;
std::atomic<DWORD> g_sections = 0;
KernelName g_lifeName;
HANDLE g_lifeSection = nullptr;
std::atomic<LifeRecord*> g_life = nullptr; // null again at the end, while calls are still served

DWORD Aligned(DWORD size) {
    return (size + kAlignment - 1) / kAlignment * kAlignment;
}

// A new section that others may only read. Its name has the run of the service, since clients may still have the
// sections of an earlier run. A name that exists is another user's: whoever holds it may keep the service from it, so
// the next one is tried.
HANDLE CreateReadOnlySection(std::string_view baseName, DWORD size, KernelName* name) {
    EveryoneAccess readers{GENERIC_READ};
    if (!readers) return nullptr;
    for (int i = 0; i < kNamesTried; ++i) {
        char numbered[sizeof name->text];
        const int length =
            snprintf(numbered, sizeof numbered, "%.*s:%016llx:%lu", static_cast<int>(baseName.size()), baseName.data(),
                     static_cast<unsigned long long>(g_run), static_cast<unsigned long>(g_sections++));
        if (length >= static_cast<int>(sizeof numbered)) return nullptr;
        *name = ObjectName(g_terminalServer, numbered);
        const HANDLE section =
            CreateFileMappingA(INVALID_HANDLE_VALUE, &readers.attributes, PAGE_READWRITE, 0, size, name->text);
        if (section && GetLastError() != ERROR_ALREADY_EXISTS) return section;
        if (section) CloseHandle(section);
    }
    return nullptr;
}

PublishedHead& HeadOf(Publication& publication) {
    return *reinterpret_cast<PublishedHead*>(publication.base);
}

PublishedSlot& SlotOf(Publication& publication, DWORD slot) {
    return reinterpret_cast<PublishedSlot*>(publication.base + sizeof(PublishedHead))[slot - 1];
}

// 0: there is no room.
DWORD TakeBytes(Publication& publication, DWORD size) {
    const LockHold hold{publication.lock};
    const DWORD at = publication.used;
    const DWORD taken = Aligned(size);
    if (taken > publication.size - at) return 0;
    publication.used = at + taken;
    return at;
}

} // namespace

Publication* NewPublication(Account& account, std::string_view database, DWORD slots, DWORD bytes) {
    const DWORD head = sizeof(PublishedHead) + slots * sizeof(PublishedSlot);
    if (!g_life || bytes > kPublishedSectionMax - head) return nullptr;
    const DWORD size = Aligned(head + bytes);
    if (!Charge(account, kShareMemory, size)) return nullptr;
    auto* publication = new (std::nothrow) Publication{&account};
    if (!publication) {
        GiveBack(account, kShareMemory, size);
        return nullptr;
    }
    publication->size = size;
    publication->capacities = new (std::nothrow) DWORD[slots]();
    char baseName[sizeof publication->name.text];
    snprintf(baseName, sizeof baseName, "TVOR:%.*s:Values", static_cast<int>(database.size()), database.data());
    if (publication->capacities) publication->section = CreateReadOnlySection(baseName, size, &publication->name);
    if (publication->section)
        publication->base = static_cast<BYTE*>(MapViewOfFile(publication->section, FILE_MAP_WRITE, 0, 0, size));
    if (!publication->base) {
        ReleasePublication(publication);
        return nullptr;
    }
    {
        const LockHold hold{publication->lock};
        publication->used = head;
    }
    PublishedHead& made = *new (publication->base) PublishedHead{};
    made.slotRoom = slots;
    std::uninitialized_value_construct_n(reinterpret_cast<PublishedSlot*>(publication->base + sizeof made), slots);
    made.mark.store(kPublishedMark, std::memory_order_release);
    return publication;
}

void MarkReplaced(Publication* publication) {
    if (publication) HeadOf(*publication).state.store(kSectionReplaced, std::memory_order_seq_cst);
}

void MarkCurrent(Publication& publication) {
    HeadOf(publication).state.store(kSectionCurrent, std::memory_order_release);
}

void ReleasePublication(Publication* publication) {
    while (publication) {
        Publication* replaced = publication->replaced;
        if (publication->base) {
            MarkReplaced(publication);
            UnmapViewOfFile(publication->base);
        }
        if (publication->section) CloseHandle(publication->section);
        GiveBack(*publication->account, kShareMemory, publication->size);
        delete[] publication->capacities;
        delete publication;
        publication = replaced;
    }
}

void KeepReplaced(Publication& publication, Publication* replaced) {
    publication.replaced = replaced;
}

std::string_view SectionName(const Publication& publication) {
    return publication.name.text;
}

DWORD SectionSize(const Publication& publication) {
    return publication.size;
}

DWORD AddSlot(Publication& publication, std::string_view name, DatabaseType type, DWORD room, DWORD capacity) {
    PublishedHead& head = HeadOf(publication);
    const DWORD count = head.slotCount.load(std::memory_order_relaxed);
    if (count == head.slotRoom) return 0;
    const DWORD namePlace = TakeBytes(publication, static_cast<DWORD>(name.size()));
    if (namePlace == 0) return 0;
    memcpy(publication.base + namePlace, name.data(), name.size());
    const DWORD place = capacity > 0 && capacity <= kPublishedValueMax ? TakeBytes(publication, capacity) : 0;
    const DWORD number = count + 1;
    const DWORD hash = PublishedHash(name);
    std::atomic<DWORD>& bucket = head.buckets[hash % kPublishedBuckets];
    PublishedSlot& slot = SlotOf(publication, number);
    slot.next = bucket.load(std::memory_order_relaxed);
    slot.hash = hash;
    slot.name = namePlace;
    slot.nameLength = static_cast<DWORD>(name.size());
    slot.type = type;
    slot.room = room;
    slot.size.store(kAskService, std::memory_order_relaxed);
    slot.place.store(place, std::memory_order_relaxed);
    publication.capacities[count] = place != 0 ? Aligned(capacity) : 0;
    head.slotCount.store(number, std::memory_order_relaxed);
    bucket.store(number, std::memory_order_release);
    return number;
}

void BeginSlot(Publication* publication, DWORD slot, DWORD sequence) {
    if (slot != 0) SlotOf(*publication, slot).sequence.store(sequence, std::memory_order_relaxed);
}

// Stores are releases, which keeps them behind that of the odd sequence.
bool PutValue(Publication* publication, DWORD number, const BYTE* bytes, DWORD size) {
    if (number == 0) return true;
    PublishedSlot& slot = SlotOf(*publication, number);
    slot.size.store(kAskService, std::memory_order_release);
    if (size > kPublishedValueMax) return true;
    DWORD place = slot.place.load(std::memory_order_relaxed);
    DWORD& capacity = publication->capacities[number - 1];
    if (size > capacity) {
        const DWORD wanted = std::min(std::max(size, 2 * capacity), Aligned(kPublishedValueMax));
        place = TakeBytes(*publication, wanted);
        if (place == 0) return false;
        capacity = Aligned(wanted);
        slot.place.store(place, std::memory_order_release);
    }
    auto* words = reinterpret_cast<Word*>(publication->base + place);
    for (DWORD at = 0; at < size; at += sizeof(SIZE_T)) {
        SIZE_T word = 0;
        memcpy(&word, bytes + at, std::min<DWORD>(sizeof word, size - at));
        words[at / sizeof word].store(word, std::memory_order_release);
    }
    slot.size.store(size, std::memory_order_release);
    return true;
}

void PutTime(Publication* publication, DWORD number, ULONGLONG time) {
    if (number == 0) return;
    PublishedSlot& slot = SlotOf(*publication, number);
    slot.time[0].store(static_cast<DWORD>(time), std::memory_order_release);
    slot.time[1].store(static_cast<DWORD>(time >> 32), std::memory_order_release);
}

void CountChange(Publication* publication, DWORD number) {
    if (number == 0) return;
    std::atomic<DWORD>& changes = SlotOf(*publication, number).changes;
    changes.store(changes.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

void EndSlot(Publication* publication, DWORD slot, DWORD sequence) {
    if (slot != 0) SlotOf(*publication, slot).sequence.store(sequence, std::memory_order_seq_cst);
}

void TakeOverChanges(Publication& publication, DWORD slot, const Publication* replaced, DWORD replacedSlot) {
    if (slot == 0 || replacedSlot == 0) return;
    auto& from = SlotOf(const_cast<Publication&>(*replaced), replacedSlot);
    SlotOf(publication, slot).changes.store(from.changes.load(std::memory_order_relaxed), std::memory_order_release);
}

void PutCounts(Publication* publication, DWORD number, WatchMode mode, DWORD pulses, DWORD watches) {
    if (number == 0) return;
    PublishedSlot& slot = SlotOf(*publication, number);
    const DWORD event = mode == kEveryWrite ? 0 : 1;
    slot.pulses[event].store(pulses, std::memory_order_release);
    slot.watches[event].store(watches, std::memory_order_release);
}

void BeginPublishing(ServiceInstance run) {
    g_terminalServer = MachineIsTerminalServer();
    g_run = run;
    g_lifeSection = CreateReadOnlySection("TVORSDB:Life", sizeof(LifeRecord), &g_lifeName);
    if (!g_lifeSection) return;
    void* view = MapViewOfFile(g_lifeSection, FILE_MAP_WRITE, 0, 0, sizeof(LifeRecord));
    if (!view) return;
    auto* life = new (view) LifeRecord{};
    if (BeginLife(*life)) g_life = life; // otherwise the view stays, unused
}

void EndPublishing() {
    if (LifeRecord* life = g_life.exchange(nullptr)) EndLife(*life);
}

std::string_view LifeName() {
    return g_life ? std::string_view{g_lifeName.text} : std::string_view{};
}
