// The queues of jobs, "PrinterQueue" and "SpoolerQueue", in the form in which the database has them.
//
// "PrinterQueue" has the jobs that were sent to the printer and are not printed yet. Every change of it is made under
// the database mutex, from the read to the write.
#pragma once

#include "manager/manager_database.h"
#include "product/guards.h"
#include "product/status.h"
#include "values/stored_list.h"

#include <tvsqdz_records.h>
#include <windows.h>

#include <stdint.h>

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
