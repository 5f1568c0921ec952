// Reads of everything but queues. The road of an ordinary value, fixed in size, is the one that all processes take all
// the time: one guarded read of the name, one call of the service, two guarded writes, and no allocation.
#include "values/reading.h"

#include "base/memory.h"
#include "manager/variable_index.h"
#include "product/guards.h"
#include "values/stored_list.h"

#include <algorithm>
#include <string.h>

namespace {

constexpr DWORD kLengthSize = sizeof(uint32_t);

// The payload of a value stored with its length first. A stored size below that of the length stands for an empty
// value.
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
    case SVT_STRING: { // a text that fills its field has no NUL in it, and none is counted
        const uint32_t length = static_cast<uint32_t>(strnlen(reinterpret_cast<const char*>(fetched), total));
        return {0, std::min<uint32_t>(length + 1, total)};
    }
    case SVT_VARIABLE:
        return {kLengthSize, PayloadSize(std::min<uint32_t>(fetchedSize, total))};
    default:
        return {0, variable.size};
    }
}

// Copies what fits. The answer of the fetch stands over the lack of room.
Status GiveValue(const StatusVariableDef& variable, BYTE* value, uint32_t length, const ReadTarget& target,
                 Answer fetched, uint32_t* returned) {
    const bool cut = target.size < length;
    // Terminated before it is copied, so that one write does both.
    if (cut && (variable.flags & SVT_STRING) != 0) value[target.size - 1] = '\0';
    const uint32_t given = std::min(target.size, length);
    if (!CopyToCaller(target.buffer, value, given)) return TVS_E_FAULT;
    *returned = given;
    if (fetched != Answer::Done) return PassOn(fetched);
    return cut ? TVS_E_SIZE : TVS_OK;
}

} // namespace

Status ReadValue(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                 uint32_t* returned) {
    const bool probed = (variable.flags & SVT_PROBED) != 0;
    // Between asking for the size and fetching the value nobody may change it.
    MutexHold lock;
    DWORD total = variable.size;
    if (probed && variable.localRead != nullptr) {
        total = variable.localRead(manager, nullptr);
    } else if (probed) {
        lock.Acquire(manager->databaseMutex);
        const Answer answer = ReadVariable(manager->printerDatabase, variable.name, nullptr, 0, &total);
        if (answer != Answer::Done) return PassOn(answer);
    }
    if (target.size == 0) {
        *returned = probed ? PayloadSize(total) : variable.size;
        return TVS_E_SIZE;
    }

    // Room also for what is handed over without having been stored: an extended type's own size, an absent length.
    Scratch value(std::max<uint32_t>({total, variable.size, kLengthSize}));
    if (value.Data() == nullptr) return TVS_E_MEMORY;
    DWORD fetchedSize = 0;
    Answer fetched = Answer::Done;
    if (variable.localRead != nullptr)
        fetchedSize = variable.localRead(manager, value.Data());
    else
        fetched = ReadVariable(manager->printerDatabase, variable.name, value.Data(), total, &fetchedSize);
    lock.Release();

    // A failed fetch is no other road: the temporary is zero then, and the answer goes along with it.
    const Extent extent = ExtentOf(variable, value.Data(), total, fetchedSize);
    return GiveValue(variable, value.Data() + extent.offset, extent.length, target, fetched, returned);
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
    // No buffer and no size are the same question, for the size.
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

// Reading a queue takes its oldest item off, under the database mutex, with which other processes append.

Status TakeQueueItem(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                     uint32_t* returned, bool* returnedWritten) {
    const MutexHold lock(manager->databaseMutex);
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

    // The item has reached the caller, if only in part: now it goes.
    queue.Remove(0);
    const Answer answer = queue.Store();
    if (answer != Answer::Done) return PassOn(answer);
    return cut ? TVS_E_SIZE : TVS_OK;
}

// Write times, for the ANSI and the wide export.

Status GiveWriteTime(ManagerRecord* manager, const StatusVariableDef& variable, SYSTEMTIME* callersTime) {
    SYSTEMTIME writeTime;
    {
        const MutexHold lock(manager->databaseMutex);
        if (GetWriteTime(manager->printerDatabase, variable.name, &writeTime) != Answer::Done) return TVS_E_UNKNOWN;
    }
    return CopyToCaller(callersTime, &writeTime, sizeof writeTime) ? TVS_OK : TVS_E_FAULT;
}
