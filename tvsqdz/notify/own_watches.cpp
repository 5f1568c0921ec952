// Variables that are computed, with their watchers: "PrintingMyJob" and "SpoolingMyJob" (how many jobs of a queue are
// the manager's own), "UserAuthority", and "TerminateManager". State: on the watchers' stacks; of "TerminateManager" a
// named event.
#include "base/system.h"
#include "base/timings.h"
#include "machine/objects.h"
#include "manager/manager_record.h"
#include "manager/variables.h"
#include "notify/watcher.h"
#include "product/desktop_agent.h"
#include "product/guards.h"
#include "product/status.h"
#include "product/variable_names.h"
#include "values/stored_list.h"
#include "values/user_authority.h"

#include <string.h>

namespace {

constexpr DWORD kMyJobWatchEnded = 0; // its exit code differs from that of the others
constexpr int kAttempts = 4;

// The size of the value, or the status of the last attempt.
uint32_t ReadMyJobs(ManagerRecord* manager, const char* queueName, void* buffer) {
    uint32_t count = 0;
    if (buffer == nullptr) return sizeof count;
    Status status = TVS_OK;
    for (int i = 0; i < kAttempts; ++i) {
        DatabaseLock lock(*manager);
        status = TVS_E_NOT_READY;
        if (!lock.held) break;
        status = ReadOwnerJobCount(manager->printerDatabase, queueName, manager->userName, lock, &count);
        if (status == TVS_OK || status == TVS_E_MEMORY) break;
    }
    memcpy(buffer, &count, sizeof count);
    return status == TVS_OK ? sizeof count : static_cast<uint32_t>(status);
}

class MyJobWatcher {
public:
    MyJobWatcher(const NotificationRegistration& registration, const char* queueName)
        : m_registration(registration), m_queueName(queueName), m_watcher(registration, 1) {
        m_watcher.Add(queueName, product::kOnlyChanges);
        // A queue that cannot be read counts as empty, as in a read of the variable.
        while (Count(&m_told) == TVS_E_MEMORY &&
               WaitForSingleObject(registration.thread.stopEvent, g_timings.memoryPause) == WAIT_TIMEOUT) {
        }
        ThreadHasBegun(registration.thread);
    }
    MyJobWatcher(const MyJobWatcher&) = delete;
    MyJobWatcher& operator=(const MyJobWatcher&) = delete;

    void Run() {
        m_watcher.Run([this](DWORD) { return TellChange(); });
    }

private:
    // A watcher that has to end does not wait for the mutex; its count no longer matters.
    Status Count(uint32_t* count) const {
        MutexHold lock;
        if (!lock.AcquireUnless(m_registration.thread.stopEvent, m_registration.databaseMutex)) return TVS_OK;
        return ReadOwnerJobCount(PrinterDatabaseOf(m_registration), m_queueName, m_registration.userName, lock, count);
    }

    DWORD TellChange() {
        uint32_t count = m_told;
        const Status status = Count(&count);
        if (status == TVS_OK && count != m_told) {
            m_told = count;
            Deliver(m_registration.entries[0]);
        }
        return status == TVS_E_MEMORY ? g_timings.memoryPause : kNoLook;
    }

    const NotificationRegistration& m_registration;
    const char* const m_queueName;
    Watcher m_watcher;
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
    const bool printing = strcmp(registration.entries[0].variableName, names::kPrintingMyJob) == 0;
    MyJobWatcher(registration, printing ? kPrinterQueue : kSpoolerQueue).Run();
    return kMyJobWatchEnded;
}

// The watcher of "UserAuthority": delivers when a read would return another authority than before.

namespace {

using names::kAccessControlList;

class ListWatcher {
public:
    explicit ListWatcher(const NotificationRegistration& registration)
        : m_registration(registration), m_watcher(registration, 1) {
        m_watcher.Add(kAccessControlList, product::kOnlyChanges);
        // Without a list nobody has any authority.
        AccessControlList list;
        if (Load(list) == TVS_OK) m_told = AclAuthority(list.Acl(), list.AclSize());
        ThreadHasBegun(registration.thread);
    }
    ListWatcher(const ListWatcher&) = delete;
    ListWatcher& operator=(const ListWatcher&) = delete;

    void Run() {
        m_watcher.Run([this](DWORD) { return TellChange() == TVS_E_MEMORY ? g_timings.memoryPause : kNoLook; });
    }

private:
    // The mutex is held only for one answer of the service, and a watcher that has to end does not wait for it.
    Status Load(AccessControlList& list) const {
        MutexHold lock;
        if (!lock.AcquireUnless(m_registration.thread.stopEvent, m_registration.databaseMutex))
            return TVS_E_REQUEST_LOCK;
        return list.Load(PrinterDatabaseOf(m_registration));
    }

    // A list that cannot be read is not a change. Looking up accounts may take long; a list that is written meanwhile
    // is news.
    Status TellChange() {
        AccessControlList list;
        const Status status = Load(list);
        if (status != TVS_OK) return status;
        const uint32_t authority = AclAuthority(list.Acl(), list.AclSize());
        if (authority == m_told) return status;
        m_told = authority;
        Deliver(m_registration.entries[0]);
        return status;
    }

    const NotificationRegistration& m_registration;
    Watcher m_watcher;
    uint32_t m_told = 0;
};

} // namespace

DWORD WINAPI UserAuthorityWatch(void* parameter) {
    const NotificationRegistration& registration = RegistrationOf(parameter);
    const bool fromList = SystemVersion().dwPlatformId == VER_PLATFORM_WIN32_NT &&
                          (StoredPortKind(PrinterDatabaseOf(registration)) & TVS_PORT_NO_REQUESTS) == 0;
    if (!fromList) return VariableWatch(parameter);
    ListWatcher(registration).Run();
    return kWatchEnded;
}

// "TerminateManager" asks every manager of the product to shut down.
//
// Everybody who watches it, for whichever printer, waits for one named event of the machine. The event stays set while
// somebody has it open, so that later watchers are notified too.

namespace {

using names::kTerminateManager;

// A window of the product's other programs, and the message that asks it to close.
struct TerminationTarget {
    const char* windowClass;
    UINT message;
};
constexpr TerminationTarget kEveryWindow = {"TVORRPWndClass", 1225};
// The first window of each class.
constexpr TerminationTarget kFirstWindow = {product::kAgentWindowClass, product::kAgentEndMessage};
constexpr TerminationTarget kFirstWindows9x[] = {{"TVORNSS95WndClass", 1026}, {"TVORPWD95WndClass", 1024}};

// The program decides what to do; a window that stays is left alone after a while.
void AskToClose(HWND window, UINT message) {
    PostMessageA(window, message, 0, 0);
    for (DWORD poll = 0; poll < g_timings.windowClosePolls && IsWindow(window); ++poll)
        Sleep(g_timings.windowClosePoll);
}

BOOL CALLBACK AskIfListed(HWND window, LPARAM) {
    char windowClass[260];
    if (GetClassNameA(window, windowClass, sizeof windowClass) > 0 &&
        strcmp(windowClass, kEveryWindow.windowClass) == 0)
        AskToClose(window, kEveryWindow.message);
    return TRUE;
}

void AskFirst(const TerminationTarget& target) {
    if (HWND window = FindWindowA(target.windowClass, nullptr); window != nullptr) AskToClose(window, target.message);
}

void CloseProductWindows(bool isNt) {
    EnumWindows(AskIfListed, 0);
    AskFirst(kFirstWindow);
    if (isNt) return;
    for (const TerminationTarget& target : kFirstWindows9x)
        AskFirst(target);
}

void WakeWatchers() {
    const KernelHandle event(OpenEventA(EVENT_MODIFY_STATE, FALSE, ObjectName(product::kTerminationName).text));
    if (event) SetEvent(event.Get()); // nobody watches without it
}

Answer Store(const ManagerDatabase& database, uint32_t value) {
    return WriteVariable(database, kTerminateManager, &value, sizeof value);
}

} // namespace

int32_t TerminateManagerWrite(ManagerRecord* manager, const void* data, uint32_t size) {
    uint32_t value = 0;
    if (size != sizeof value) return PassOn(Answer::WrongSize);
    memcpy(&value, data, sizeof value);
    WakeWatchers(); // for any value
    const Status status = PassOn(Store(manager->printerDatabase, value));
    if (value == 0) return status;
    CloseProductWindows((manager->flags & OsNtAny) != 0);
    {
        const ManagerLockHold lock;
        manager->flags |= ManagerTerminating; // its close waits for the others'
    }
    Sleep(g_timings.terminationPause);
    return status;
}

// Delivers one termination; the registrant registers again for the next one.
DWORD WINAPI TerminateManagerWatch(void* parameter) {
    const NotificationRegistration& registration = RegistrationOf(parameter);
    const KernelHandle terminated(CreateNamedEvent(ObjectName(product::kTerminationName)));
    ThreadHasBegun(registration.thread);
    const HANDLE handles[] = {registration.thread.stopEvent, terminated.Get()};
    if (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) {
        Store(PrinterDatabaseOf(registration), 1);
        Deliver(registration.entries[0]);
    }
    return kWatchEnded;
}
