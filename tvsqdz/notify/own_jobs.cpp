// "PrintingMyJob" and "SpoolingMyJob": how many jobs of a queue are the manager's own. Counted anew each time; the
// watcher's state is on its stack.
#include "base/timings.h"
#include "manager/manager_record.h"
#include "manager/variable_handlers.h"
#include "notify/delivery.h"
#include "values/job_queue.h"

#include <string.h>

namespace {

constexpr DWORD kEnded = 0;
constexpr int kAttempts = 4;

// The value's size, or the status of the last attempt.
uint32_t ReadMyJobs(ManagerRecord* manager, const char* queueName, void* buffer) {
    uint32_t count = 0;
    if (buffer == nullptr) return sizeof count;
    Status status = TVS_OK;
    for (int i = 0; i < kAttempts; ++i) {
        MutexHold lock(manager->databaseMutex);
        status = ReadOwnerJobCount(manager->printerDatabase, queueName, manager->userName, lock, &count);
        if (status == TVS_OK || status == TVS_E_MEMORY) break;
    }
    memcpy(buffer, &count, sizeof count);
    return status == TVS_OK ? sizeof count : static_cast<uint32_t>(status);
}

class MyJobWatcher {
public:
    MyJobWatcher(const NotificationRegistration& registration, const char* queueName)
        : m_registration(registration), m_queueName(queueName),
          m_watch(registration, queueName, product::kOnlyChanges) {
        // A queue that cannot be read counts as empty, as a read of the variable has it.
        while (Count(&m_told) == TVS_E_MEMORY &&
               WaitForSingleObject(registration.thread.stopEvent, g_timings.memoryPause) == WAIT_TIMEOUT) {
        }
        ThreadHasBegun(registration.thread);
    }
    MyJobWatcher(const MyJobWatcher&) = delete;
    MyJobWatcher& operator=(const MyJobWatcher&) = delete;

    void Run() {
        WatchUntilStopped(m_registration, m_watch, g_timings.firstLook, [this] { return TellChange(); });
    }

private:
    // A watcher that is to end does not wait for the mutex; what it counts is of no interest any more.
    Status Count(uint32_t* count) const {
        MutexHold lock;
        if (!lock.AcquireUnless(m_registration.thread.stopEvent, m_registration.databaseMutex)) return TVS_OK;
        return ReadOwnerJobCount(PrinterDatabaseOf(m_registration), m_queueName, m_registration.userName, lock, count);
    }

    // The question for the write time shows the service that this watcher was told: a pulse that comes while it counts
    // is repeated. A count that took long is followed by another.
    DWORD TellChange() {
        const DWORD begun = GetTickCount();
        SYSTEMTIME written = {};
        GetWriteTime(PrinterDatabaseOf(m_registration), m_queueName, &written);
        uint32_t count = m_told;
        const Status status = Count(&count);
        if (status == TVS_OK && count != m_told) {
            m_told = count;
            Deliver(m_registration.entries[0]);
        }
        if (status == TVS_E_MEMORY) return g_timings.memoryPause;
        return GetTickCount() - begun > kPulseComesAgainMs ? g_timings.firstLook : INFINITE;
    }

    const NotificationRegistration& m_registration;
    const char* const m_queueName;
    Watch m_watch;
    uint32_t m_told = 0;
};

} // namespace

uint32_t PrintingMyJobRead(ManagerRecord* manager, void* buffer) {
    return ReadMyJobs(manager, kPrinterQueue, buffer);
}

uint32_t SpoolingMyJobRead(ManagerRecord* manager, void* buffer) {
    return ReadMyJobs(manager, kSpoolerQueue, buffer);
}

DWORD WINAPI MyJobWatch(void* parameter) {
    const NotificationRegistration& registration = RegistrationOf(parameter);
    const bool printing = strcmp(registration.entries[0].variableName, "PrintingMyJob") == 0;
    MyJobWatcher(registration, printing ? kPrinterQueue : kSpoolerQueue).Run();
    return kEnded;
}
