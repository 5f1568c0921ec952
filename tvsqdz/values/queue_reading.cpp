// Reading a queue takes its oldest item off, under the database mutex, with which other processes append.
#include "values/reading.h"

#include "base/caller_memory.h"
#include "product/guards.h"
#include "values/stored_list.h"

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
