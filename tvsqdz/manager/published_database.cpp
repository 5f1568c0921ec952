// Calls through a ManagerDatabase, and reads of published values.
//
// A section is mapped at the first read of its values, and again when the service has replaced it or is a new one. An
// earlier one stays mapped while another thread may be reading it. The managers of the process share what is mapped,
// and the sections used last stay mapped for the managers to come, so that most opens map nothing.
//
// State: the mapped sections of the process, and those that each ManagerDatabase has.
#include "base/memory.h"
#include "machine/process_state.h"
#include "manager/manager_database.h"
#include "product/guards.h"
#include "product/linked_list.h"
#include "product/service_life.h"

#include <new>
#include <string.h>

using product::PublishedRead;
using product::PublishedState;

namespace {

// A read-only view of a named section.
class View {
public:
    View() = default;
    ~View() {
        if (m_view != nullptr) UnmapViewOfFile(m_view);
    }
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    bool Map(const char* name, DWORD size) {
        const KernelHandle section(OpenFileMappingA(FILE_MAP_READ, FALSE, name));
        if (section) m_view = MapViewOfFile(section.Get(), FILE_MAP_READ, 0, 0, size);
        return m_view != nullptr;
    }
    const BYTE* Bytes() const { return static_cast<const BYTE*>(m_view); }

private:
    void* m_view = nullptr;
};

} // namespace

// A section that this process has mapped, in a block of the heap. All but the last three members are constant once it
// is listed.
struct MappedSection {
    PublishedPlace place;
    DWORD hash; // of its name
    View values;
    View life;
    product::PublishedSection section;
    product::LifeWatch watch;
    DWORD references; // by databases of managers
    MappedSection* next;
    MappedSection* nextKept;
};

// In a block of the heap. Constant once it can be seen, but for `earlier`.
struct PublishedDatabase {
    DatabaseHandle handle; // for which it was mapped
    MappedSection* mapped;
    PublishedDatabase* earlier;
};

namespace {

constexpr DWORD kBuckets = 64;
constexpr DWORD kSectionsKept = 16;

MappedSection* g_mapped[kBuckets] GUARDED_BY(g_managerLock);
// Those that no database has, the one released last behind the others.
MappedSection* g_kept GUARDED_BY(g_managerLock);
DWORD g_keptCount GUARDED_BY(g_managerLock) = 0;

bool IsCurrent(const MappedSection& mapped) {
    const auto* head = reinterpret_cast<const product::PublishedHead*>(mapped.section.base);
    return head->state.load(std::memory_order_acquire) == product::kSectionCurrent;
}

void Unmap(MappedSection* mapped) {
    product::EndLifeWatch(mapped->watch);
    mapped->~MappedSection();
    FreeBlock(mapped);
}

// Null: this process cannot.
MappedSection* MapAfresh(const PublishedPlace& place, DWORD hash) {
    void* block = AllocateZeroed(sizeof(MappedSection));
    if (block == nullptr) return nullptr;
    auto* mapped = new (block) MappedSection{.place = place, .hash = hash};
    if (mapped->values.Map(place.section.text, place.size) &&
        mapped->life.Map(place.life.text, sizeof(product::LifeRecord))) {
        mapped->section = {mapped->values.Bytes(), place.size / 8 * 8};
        const auto* record = reinterpret_cast<const product::LifeRecord*>(mapped->life.Bytes());
        if (product::BeginLifeWatch(record, &mapped->watch)) return mapped;
    }
    Unmap(mapped);
    return nullptr;
}

void Reference(MappedSection& mapped) REQUIRES(g_managerLock) {
    if (mapped.references++ > 0) return;
    Unlink(g_kept, &MappedSection::nextKept, mapped);
    --g_keptCount;
}

// The name of a section is never given to another, so one that is current has the values.
MappedSection* FindMapped(const PublishedPlace& place, DWORD hash) REQUIRES(g_managerLock) {
    return FindInList(g_mapped[hash % kBuckets], [&](const MappedSection& mapped) {
        return mapped.hash == hash && mapped.place.size == place.size &&
               strcmp(mapped.place.section.text, place.section.text) == 0 && IsCurrent(mapped) &&
               product::IsAlive(mapped.watch);
    });
}

// With a reference. Null: this process cannot map it. Nothing is mapped under the lock.
MappedSection* TakeMapped(const PublishedPlace& place) {
    const DWORD hash = product::PublishedHash(place.section.text);
    {
        const ManagerLockHold lock;
        if (MappedSection* known = FindMapped(place, hash)) {
            Reference(*known);
            return known;
        }
    }
    MappedSection* mapped = MapAfresh(place, hash);
    if (mapped == nullptr) return nullptr;
    const ManagerLockHold lock;
    mapped->references = 1;
    mapped->next = g_mapped[hash % kBuckets];
    g_mapped[hash % kBuckets] = mapped;
    return mapped;
}

// The kept section that was released first, when there are more than `most`; null otherwise.
MappedSection* TakeSurplus(DWORD most) {
    const ManagerLockHold lock;
    if (g_keptCount <= most) return nullptr;
    MappedSection* surplus = g_kept;
    g_kept = surplus->nextKept;
    --g_keptCount;
    Unlink(g_mapped[surplus->hash % kBuckets], &MappedSection::next, *surplus);
    return surplus;
}

void ReleaseMapped(MappedSection* mapped) {
    {
        const ManagerLockHold lock;
        if (--mapped->references > 0) return;
        MappedSection** end = &g_kept;
        while (*end != nullptr)
            end = &(*end)->nextKept;
        mapped->nextKept = nullptr;
        *end = mapped;
        ++g_keptCount;
    }
    while (MappedSection* surplus = TakeSurplus(kSectionsKept))
        Unmap(surplus);
}

void Free(PublishedDatabase* published) {
    while (published != nullptr) {
        PublishedDatabase* earlier = published->earlier;
        ReleaseMapped(published->mapped);
        FreeBlock(published);
        published = earlier;
    }
}

// While it lives, what the database has published stays mapped.
struct Reading {
    explicit Reading(const ManagerDatabase& read) : database(read) { database.readers.fetch_add(1); }
    ~Reading() { database.readers.fetch_sub(1); }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    const ManagerDatabase& database;
};

// earlier: the one before, which it replaces unless another thread was faster. Null: reads go by call.
const PublishedDatabase* Publish(const Reading& reading, DatabaseHandle handle, const PublishedPlace& place,
                                 PublishedDatabase* earlier) {
    const ManagerDatabase& database = reading.database;
    MappedSection* mapped = place.size != 0 ? TakeMapped(place) : nullptr;
    auto* published =
        mapped != nullptr ? static_cast<PublishedDatabase*>(AllocateZeroed(sizeof(PublishedDatabase))) : nullptr;
    if (published == nullptr) {
        if (mapped != nullptr) ReleaseMapped(mapped);
        database.readByCalls = handle;
        return nullptr;
    }
    *published = {handle, mapped, earlier};
    if (!database.published.compare_exchange_strong(earlier, published)) {
        published->earlier = nullptr;
        Free(published);
        return earlier->handle == handle ? earlier : nullptr;
    }
    // Whoever begins to read from now on finds the new one.
    if (database.readers.load() == 1) {
        published->earlier = nullptr;
        Free(earlier);
    }
    return published;
}

// Asks the service where the values are, and maps them.
const PublishedDatabase* Map(const Reading& reading, DatabaseHandle handle, PublishedDatabase* earlier) {
    PublishedPlace place;
    const Answer answer = FindPublishedValues(handle, &place);
    // Being initialised: published later. Other answers are those of an earlier handle or of no service.
    if (answer != Answer::Done && answer != Answer::NoSuchProcedure) return nullptr;
    return Publish(reading, handle, place, earlier);
}

enum class Mapping { Allowed, Refused }; // it takes calls of the service

// Null: ask the service, which may have ended.
const PublishedDatabase* PublishedOf(const Reading& reading, Mapping mapping) {
    const ManagerDatabase& database = reading.database;
    const DatabaseHandle handle = database.handle.load(std::memory_order_relaxed);
    PublishedDatabase* published = database.published.load();
    if (published != nullptr && published->handle == handle) {
        if (!product::IsAlive(published->mapped->watch)) return nullptr;
        if (IsCurrent(*published->mapped)) return published;
    }
    if (mapping == Mapping::Refused || handle == 0 || database.readByCalls.load(std::memory_order_relaxed) == handle)
        return nullptr;
    return Map(reading, handle, published);
}

// Reads once more when the section was replaced meanwhile. A service that ended during the read did so after it: its
// memory stays as it was.
PublishedRead Read(const ManagerDatabase& database, const char* name, BYTE* buffer, DWORD size, PublishedState* state,
                   Mapping mapping = Mapping::Allowed) {
    const Reading reading(database);
    for (int i = 0; i < 2; ++i) {
        const PublishedDatabase* published = PublishedOf(reading, mapping);
        if (published == nullptr) break;
        const PublishedRead read = product::ReadPublished(published->mapped->section, name, buffer, size, state);
        if (read != PublishedRead::Ask || IsCurrent(*published->mapped)) return read;
    }
    return PublishedRead::Ask;
}

template <typename Call> // Answer(DatabaseHandle)
Answer Made(const ManagerDatabase& database, Call call) {
    DatabaseHandle handle = database.handle.load(std::memory_order_relaxed);
    const Answer answer = call(handle);
    if (answer != Answer::UnknownDatabase) return answer;
    const Answer followed = FollowService(database, &handle);
    return followed == Answer::Done ? call(handle) : followed;
}

} // namespace

void TakeDatabase(ManagerDatabase& database, const EnteredDatabase& entered) {
    database.handle = entered.handle;
    if (!entered.created) Publish(Reading(database), entered.handle, entered.place, database.published.load());
}

Answer GetDatabaseInfo(const ManagerDatabase& database, product::DatabaseInfo* info) {
    return Made(database, [&](DatabaseHandle handle) { return GetDatabaseInfo(handle, info); });
}

Answer WriteVariable(const ManagerDatabase& database, const char* name, const void* value, DWORD size) {
    return Made(database, [&](DatabaseHandle handle) { return WriteVariable(handle, name, value, size); });
}

Answer ReadVariable(const ManagerDatabase& database, const char* name, void* buffer, DWORD size, DWORD* valueSize) {
    PublishedState state;
    BYTE* bytes = static_cast<BYTE*>(buffer);
    const DWORD capacity = bytes != nullptr ? size : 0;
    switch (Read(database, name, bytes, capacity, &state)) {
    case PublishedRead::Done:
        memset(bytes + state.size, 0, capacity - state.size);
        *valueSize = state.size;
        return Answer::Done;
    case PublishedRead::TooSmall:
        *valueSize = state.size;
        return capacity == 0 ? Answer::Done : Answer::BufferTooSmall;
    case PublishedRead::Ask:
        break;
    }
    if (capacity > 0) memset(bytes, 0, capacity); // an attempt may have left bytes
    return Made(database, [&](DatabaseHandle handle) { return ReadVariable(handle, name, buffer, size, valueSize); });
}

bool FindPublishedState(const ManagerDatabase& database, const char* name, PublishedState* state) {
    return Read(database, name, nullptr, 0, state) != PublishedRead::Ask;
}

bool FindMappedState(const ManagerDatabase& database, const char* name, PublishedState* state) {
    return Read(database, name, nullptr, 0, state, Mapping::Refused) != PublishedRead::Ask;
}

bool ServiceIsKnownToLive(const ManagerDatabase& database) {
    const Reading reading(database);
    const PublishedDatabase* published = database.published.load();
    return published != nullptr && published->handle == database.handle && product::IsAlive(published->mapped->watch);
}

void ForgetPublished(ManagerDatabase& database) {
    Free(database.published.exchange(nullptr));
}

void UnmapKeptSections() {
    while (MappedSection* kept = TakeSurplus(0))
        Unmap(kept);
}

void ForgetMappedSections() NO_LOCK_ANALYSIS {
    memset(g_mapped, 0, sizeof g_mapped);
    g_kept = nullptr;
    g_keptCount = 0;
}

Answer GetVariableInfo(const ManagerDatabase& database, const char* name, product::VariableInfo* info) {
    PublishedState state;
    if (!FindPublishedState(database, name, &state))
        return Made(database, [&](DatabaseHandle handle) { return GetVariableInfo(handle, name, info); });
    *info = product::ToVariableInfo(state);
    return Answer::Done;
}

Answer GetWriteTime(const ManagerDatabase& database, const char* name, SYSTEMTIME* writeTime) {
    product::VariableInfo info = {};
    const Answer answer = GetVariableInfo(database, name, &info);
    if (answer == Answer::Done) *writeTime = info.writeTime;
    return answer;
}

Answer GetWriteCount(const ManagerDatabase& database, const char* name, DWORD* writes) {
    product::VariableInfo info = {};
    const Answer answer = GetVariableInfo(database, name, &info);
    if (answer == Answer::Done) *writes = info.writes;
    return answer;
}
