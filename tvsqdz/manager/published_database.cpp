// Calls through a ManagerDatabase, and reads of published values.
//
// A section is mapped at the first read of its values, and again when the service has replaced it or is a new one. An
// earlier one stays mapped until its manager is closed, since another thread may be reading it. State: the sections of
// each ManagerDatabase.
#include "base/memory.h"
#include "manager/manager_database.h"
#include "product/file_times.h"
#include "product/guards.h"
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

// In a block of the heap. Constant once it can be seen.
struct PublishedDatabase {
    DatabaseHandle handle; // for which it was mapped
    View values;
    View life;
    product::PublishedSection section = {};
    product::LifeWatch watch;
    PublishedDatabase* earlier = nullptr;

    // False: this process cannot.
    bool Map(const PublishedPlace& place) {
        if (!values.Map(place.section.text, place.size) || !life.Map(place.life.text, sizeof(product::LifeRecord)))
            return false;
        section = {values.Bytes(), place.size / 8 * 8};
        return product::BeginLifeWatch(reinterpret_cast<const product::LifeRecord*>(life.Bytes()), &watch);
    }
};

namespace {

void Free(PublishedDatabase* published) {
    product::EndLifeWatch(published->watch);
    published->~PublishedDatabase();
    FreeBlock(published);
}

// Null: it cannot be mapped.
PublishedDatabase* Mapped(DatabaseHandle handle, const PublishedPlace& place) {
    void* block = AllocateZeroed(sizeof(PublishedDatabase));
    if (block == nullptr) return nullptr;
    auto* published = new (block) PublishedDatabase{handle};
    if (published->Map(place)) return published;
    Free(published);
    return nullptr;
}

// earlier: the one before, which it replaces unless another thread was faster. Null: reads go by call.
const PublishedDatabase* Publish(const ManagerDatabase& database, DatabaseHandle handle, const PublishedPlace& place,
                                 PublishedDatabase* earlier) {
    PublishedDatabase* published = place.size != 0 ? Mapped(handle, place) : nullptr;
    if (published == nullptr) {
        database.readByCalls = handle;
        return nullptr;
    }
    published->earlier = earlier;
    if (database.published.compare_exchange_strong(earlier, published)) return published;
    Free(published);
    return earlier->handle == handle ? earlier : nullptr;
}

// Asks the service where the values are, and maps them.
const PublishedDatabase* Map(const ManagerDatabase& database, DatabaseHandle handle, PublishedDatabase* earlier) {
    PublishedPlace place;
    const Answer answer = FindPublishedValues(handle, &place);
    // Being initialised: published later. Other answers are those of an earlier handle or of no service.
    if (answer != Answer::Done && answer != Answer::NoSuchProcedure) return nullptr;
    return Publish(database, handle, place, earlier);
}

bool IsCurrent(const PublishedDatabase& published) {
    const auto* head = reinterpret_cast<const product::PublishedHead*>(published.section.base);
    return head->state.load(std::memory_order_acquire) == product::kSectionCurrent;
}

// Null: ask the service, which may have ended.
const PublishedDatabase* PublishedOf(const ManagerDatabase& database) {
    const DatabaseHandle handle = database.handle.load(std::memory_order_relaxed);
    PublishedDatabase* published = database.published.load(std::memory_order_acquire);
    if (published != nullptr && published->handle == handle) {
        if (!product::IsAlive(published->watch)) return nullptr;
        if (IsCurrent(*published)) return published;
    }
    if (handle == 0 || database.readByCalls.load(std::memory_order_relaxed) == handle) return nullptr;
    return Map(database, handle, published);
}

// Reads once more when the section was replaced meanwhile. A service that ended during the read did so after it: its
// memory stays as it was.
PublishedRead Read(const ManagerDatabase& database, const char* name, BYTE* buffer, DWORD size, PublishedState* state) {
    for (int i = 0; i < 2; ++i) {
        const PublishedDatabase* published = PublishedOf(database);
        if (published == nullptr) break;
        const PublishedRead read = product::ReadPublished(published->section, name, buffer, size, state);
        if (read != PublishedRead::Ask || IsCurrent(*published)) return read;
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
    if (!entered.created) Publish(database, entered.handle, entered.place, database.published.load());
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

bool ServiceIsKnownToLive(const ManagerDatabase& database) {
    const PublishedDatabase* published = database.published.load(std::memory_order_acquire);
    return published != nullptr && published->handle == database.handle && product::IsAlive(published->watch);
}

void ForgetPublished(ManagerDatabase& database) {
    PublishedDatabase* published = database.published.exchange(nullptr);
    while (published != nullptr) {
        PublishedDatabase* earlier = published->earlier;
        Free(published);
        published = earlier;
    }
}

Answer GetVariableInfo(const ManagerDatabase& database, const char* name, product::VariableInfo* info) {
    PublishedState state;
    if (!FindPublishedState(database, name, &state))
        return Made(database, [&](DatabaseHandle handle) { return GetVariableInfo(handle, name, info); });
    const DWORD writes = static_cast<DWORD>(state.writes) + static_cast<DWORD>(state.writes >> 32);
    *info = {state.type, state.size, writes, product::ToSystemTime(state.writeTime)};
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
