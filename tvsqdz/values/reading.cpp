// Reads. Every process reads ordinary values of fixed size all the time; that path is one guarded read of the name, a
// copy of the published value, two guarded writes, and no allocation. No state.
#include "values/reading.h"

#include "base/memory.h"
#include "manager/variable_index.h"
#include "product/guards.h"
#include "values/stored_list.h"

#include <algorithm>
#include <string.h>

namespace {

constexpr DWORD kLengthSize = sizeof(uint32_t);

// The payload size of a value that is stored with its length first. A stored size below that of the length means an
// empty value.
uint32_t PayloadSize(DWORD storedSize) {
    return storedSize > kLengthSize ? storedSize - kLengthSize : 0;
}

// The part of the fetched bytes that the caller gets.
struct Extent {
    uint32_t offset;
    uint32_t length;
};

Extent ExtentOf(const StatusVariableDef& variable, const BYTE* fetched, DWORD total, DWORD fetchedSize) {
    switch (TypeOf(variable)) {
    case SVT_STRING: { // a text that fills its field has no NUL, and none is counted
        const uint32_t length = static_cast<uint32_t>(strnlen(reinterpret_cast<const char*>(fetched), total));
        return {0, std::min<uint32_t>(length + 1, total)};
    }
    case SVT_VARIABLE:
        return {kLengthSize, PayloadSize(std::min<uint32_t>(fetchedSize, total))};
    default:
        return {0, variable.size};
    }
}

// Copies what fits. The answer of the fetch takes precedence over TVS_E_SIZE.
Status GiveValue(const StatusVariableDef& variable, BYTE* value, uint32_t length, const ReadTarget& target,
                 Answer fetched, uint32_t* returned) {
    const bool cut = target.size < length;
    // Terminated before the copy, so that one write does both.
    if (cut && (variable.flags & SVT_STRING) != 0) value[target.size - 1] = '\0';
    const uint32_t given = std::min(target.size, length);
    if (!CopyToCaller(target.buffer, value, given)) return TVS_E_FAULT;
    *returned = given;
    if (fetched != Answer::Done) return PassOn(fetched);
    return cut ? TVS_E_SIZE : TVS_OK;
}

// lock: held when nobody may change the value between the query for its size and the fetch. A published value is taken
// without it; when it has grown in between, the lock is taken.
Status ReadUnder(DatabaseLock& lock, ManagerRecord* manager, const StatusVariableDef& variable,
                 const ReadTarget& target, uint32_t* returned) {
    const bool probed = (variable.flags & SVT_PROBED) != 0;
    DWORD total = variable.size;
    product::PublishedState published;
    if (probed && variable.localRead != nullptr) {
        total = variable.localRead(manager, nullptr);
    } else if (probed && !lock.held && FindPublishedState(manager->printerDatabase, variable.name, &published)) {
        total = published.size;
    } else if (probed) {
        if (!lock.held && !lock.Acquire(*manager)) return TVS_E_NOT_READY;
        const Answer answer = ReadVariable(manager->printerDatabase, variable.name, nullptr, 0, &total);
        if (answer != Answer::Done) return PassOn(answer);
    }
    if (target.size == 0) {
        *returned = probed ? PayloadSize(total) : variable.size;
        return TVS_E_SIZE;
    }

    // With room for what is returned without being stored: the own size of an extended type, a missing length.
    Scratch value(std::max<uint32_t>({total, variable.size, kLengthSize}));
    if (value.Data() == nullptr) return TVS_E_MEMORY;
    DWORD fetchedSize = 0;
    Answer fetched = Answer::Done;
    if (variable.localRead != nullptr)
        fetchedSize = variable.localRead(manager, value.Data());
    else
        fetched = ReadVariable(manager->printerDatabase, variable.name, value.Data(), total, &fetchedSize);
    if (fetched == Answer::BufferTooSmall && probed && !lock.held) {
        if (!lock.Acquire(*manager)) return TVS_E_NOT_READY;
        return ReadUnder(lock, manager, variable, target, returned);
    }
    lock.Release();

    // A failed fetch takes the same path: the temporary is zero then, and the answer is passed on.
    const Extent extent = ExtentOf(variable, value.Data(), total, fetchedSize);
    return GiveValue(variable, value.Data() + extent.offset, extent.length, target, fetched, returned);
}

} // namespace

Status ReadValue(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                 uint32_t* returned) {
    DatabaseLock lock;
    return ReadUnder(lock, manager, variable, target, returned);
}

Status ReadCurrent(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                   uint32_t* returned, bool* returnedWritten) {
    if ((variable.flags & SVT_QUEUE) != 0) return TakeQueueItem(manager, variable, target, returned, returnedWritten);
    return ReadValue(manager, variable, target, returned);
}

namespace {

template <typename Character>
Status Serve(TvsManager manager, const Character* callersVariable, void* buffer, uint32_t size, uint32_t* returnedSize,
             ReadProc read) {
    // No buffer and no size both ask for the size.
    const ReadTarget target = {buffer, buffer != nullptr ? size : 0, returnedSize};
    uint32_t returned = 0;
    bool returnedWritten = false;
    const auto serve = [&](ManagerRecord* record, const StatusVariableDef& variable) -> Status {
        if ((variable.flags & SVF_READABLE) == 0) return TVS_E_UNKNOWN;
        return read(record, variable, target, &returned, &returnedWritten);
    };
    const Status status = WithVariable(manager, callersVariable, serve);
    if (!returnedWritten && !CopyToCaller(returnedSize, &returned, sizeof returned)) return TVS_E_FAULT;
    return status;
}

} // namespace

Status ServeRead(TvsManager manager, const char* callersVariable, void* buffer, uint32_t size, uint32_t* returnedSize,
                 ReadProc read) {
    return Serve(manager, callersVariable, buffer, size, returnedSize, read);
}

Status ServeRead(TvsManager manager, const WCHAR* callersVariable, void* buffer, uint32_t size, uint32_t* returnedSize,
                 ReadProc read) {
    return Serve(manager, callersVariable, buffer, size, returnedSize, read);
}

// A read of a queue removes its oldest item, under the database mutex, which other processes hold to append.

Status TakeQueueItem(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                     uint32_t* returned, bool* returnedWritten) {
    const DatabaseLock lock(*manager);
    if (!lock.held) return TVS_E_NOT_READY;
    StoredList queue(manager->printerDatabase, variable.name, variable.size);
    if (const Status status = queue.Load(); status != TVS_OK) return status;
    if (queue.Count() == 0) return TVS_OK;
    if (target.size == 0) {
        *returned = variable.size;
        return TVS_E_SIZE;
    }

    const bool cut = target.size < variable.size;
    const uint32_t given = cut ? target.size : variable.size;
    if (!CopyToCaller(target.buffer, queue.Item(0), given)) return TVS_E_FAULT;
    *returned = given;
    if (!CopyToCaller(target.returnedSize, returned, sizeof *returned)) return TVS_E_FAULT;
    *returnedWritten = true;

    // The caller has the item, or its first part; now it is removed.
    queue.Remove(0);
    const Answer answer = queue.Store();
    if (answer != Answer::Done) return PassOn(answer);
    return cut ? TVS_E_SIZE : TVS_OK;
}

Status GiveWriteTime(ManagerRecord* manager, const StatusVariableDef& variable, SYSTEMTIME* callersTime) {
    SYSTEMTIME writeTime;
    {
        DatabaseLock lock;
        if (!ServiceIsKnownToLive(manager->printerDatabase) && !lock.Acquire(*manager)) return TVS_E_NOT_READY;
        if (GetWriteTime(manager->printerDatabase, variable.name, &writeTime) != Answer::Done) return TVS_E_UNKNOWN;
    }
    return CopyToCaller(callersTime, &writeTime, sizeof writeTime) ? TVS_OK : TVS_E_FAULT;
}
