// Values that other processes append to: u32 length, u32 count, and that many items of one size back to back, oldest
// first. The length counts the count and the items. Queues and the results of write requests are such values.
//
// Whoever changes one holds the mutex that belongs to it from Load to Store.
#pragma once

#include "manager/manager_database.h"
#include "product/guards.h"
#include "product/status.h"

#include <stdint.h>
#include <tvsqdz_records.h>
#include <windows.h>

class StoredList {
public:
    // name stays the caller's. itemSize: in bytes.
    StoredList(const ManagerDatabase& database, const char* name, uint32_t itemSize)
        : m_database(database), m_name(name), m_itemSize(itemSize) {}
    ~StoredList();
    StoredList(const StoredList&) = delete;
    StoredList& operator=(const StoredList&) = delete;

    // TVS_OK, TVS_E_MEMORY, or the answer of the service. A value too short for a list is an empty one, and a count
    // that promises more items than are there is lowered to those that are. room: for that many more items.
    Status Load(uint32_t room = 0);
    uint32_t Count() const { return m_count; }
    const BYTE* Item(uint32_t i) const;
    BYTE* Item(uint32_t i) { return m_block + ItemOffset(i); }
    // One more item at the end, in the room that was asked for; the caller fills it.
    BYTE* Append() { return Item(m_count++); }
    // Takes an item out; the later ones move up.
    void Remove(uint32_t i);
    Answer Store();
    // Of items that begin with a u32 number: one more than the largest; 0 when that is the last number there is.
    uint32_t NextNumber() const;

private:
    SIZE_T ItemOffset(uint32_t i) const;

    const ManagerDatabase& m_database;
    const char* m_name;
    uint32_t m_itemSize;
    uint32_t m_count = 0;
    BYTE* m_block = nullptr; // of the heap
};

// The queues of jobs, "PrinterQueue" and "SpoolerQueue", in the form in which the database has them.
//
// "PrinterQueue" has the jobs that were sent to the printer and are not printed yet. Every change of it is made under
// the database mutex, from the read to the write.

inline constexpr char kPrinterQueue[] = "PrinterQueue";
inline constexpr char kSpoolerQueue[] = "SpoolerQueue";
inline constexpr uint32_t kPrinterQueueLimit = 50;

struct JobQueue : StoredList {
    JobQueue(const ManagerDatabase& database, const char* name) : StoredList(database, name, sizeof(TvsJobRecord)) {}

    const TvsJobRecord& Job(uint32_t i) const { return *reinterpret_cast<const TvsJobRecord*>(Item(i)); }
};

// The entries whose owner is the user, without regard to the case of the letters A to Z.
uint32_t CountOwnerJobs(const JobQueue& queue, const char* userName);

// The same of a stored queue. lock: holds the database mutex, which is let go once the queue is read. TVS_OK,
// TVS_E_MEMORY, or the service's answer; *count is untouched then.
Status ReadOwnerJobCount(const ManagerDatabase& database, const char* queueName, const char* userName, MutexHold& lock,
                         uint32_t* count);
