// Values that other processes append to: u32 length, u32 count, and that many items of one size back to back, oldest
// first. The length covers the count and the items. Queues and the results of write requests have this form.
//
// Whoever changes one holds its mutex from Load to Store.
#pragma once

#include "manager/manager_database.h"
#include "product/guards.h"
#include "product/status.h"
#include "product/variable_names.h"

#include <stdint.h>
#include <tvsqdz_records.h>
#include <windows.h>

class StoredList {
public:
    // name: owned by the caller. itemSize: in bytes.
    StoredList(const ManagerDatabase& database, const char* name, uint32_t itemSize)
        : m_database(database), m_name(name), m_itemSize(itemSize) {}
    ~StoredList();
    StoredList(const StoredList&) = delete;
    StoredList& operator=(const StoredList&) = delete;

    // TVS_OK, TVS_E_MEMORY, or the answer of the service. A value too short for a list is an empty list, and a count
    // larger than the items that are there is lowered. room: for that many more items.
    Status Load(uint32_t room = 0);
    uint32_t Count() const { return m_count; }
    const BYTE* Item(uint32_t i) const;
    BYTE* Item(uint32_t i) { return m_block + ItemOffset(i); }
    // Appends an item, in the room that was asked for; the caller fills it.
    BYTE* Append() { return Item(m_count++); }
    // Removes an item; the later ones move up.
    void Remove(uint32_t i);
    Answer Store();
    // For items that begin with a u32 number: the largest plus one; 0 when the numbers are used up.
    uint32_t NextNumber() const;

private:
    SIZE_T ItemOffset(uint32_t i) const;

    const ManagerDatabase& m_database;
    const char* m_name;
    uint32_t m_itemSize;
    uint32_t m_count = 0;
    BYTE* m_block = nullptr; // of the heap
};

// The job queues "PrinterQueue" and "SpoolerQueue", as the database stores them.
//
// "PrinterQueue" has the jobs that were sent to the printer and are not yet printed. It is changed only under the
// database mutex, from the read to the write.

using names::kPrinterQueue;
using names::kSpoolerQueue;
inline constexpr uint32_t kPrinterQueueLimit = 50;

struct JobQueue : StoredList {
    JobQueue(const ManagerDatabase& database, const char* name) : StoredList(database, name, sizeof(TvsJobRecord)) {}

    const TvsJobRecord& Job(uint32_t i) const { return *reinterpret_cast<const TvsJobRecord*>(Item(i)); }
};

// The entries whose owner is the user; A to Z compare without case.
uint32_t CountOwnerJobs(const JobQueue& queue, const char* userName);

// The same for a stored queue. lock: holds the database mutex, which is released once the queue is read. TVS_OK,
// TVS_E_MEMORY, or the answer of the service; *count is untouched on failure.
Status ReadOwnerJobCount(const ManagerDatabase& database, const char* queueName, const char* userName, MutexHold& lock,
                         uint32_t* count);
