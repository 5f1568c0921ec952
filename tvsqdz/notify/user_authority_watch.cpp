// The watcher of "UserAuthority": tells when the authority that a read would give has become another one.
//
// State: on the watcher's stack.
#include "base/platform_version.h"
#include "base/timings.h"
#include "manager/variable_handlers.h"
#include "notify/delivery.h"
#include "product/guards.h"
#include "values/access_control_list.h"
#include "values/user_authority.h"

namespace {

constexpr DWORD kEnded = 1;
constexpr char kAccessControlList[] = "AccessControlList";

class ListWatcher {
public:
    explicit ListWatcher(const NotificationRegistration& registration)
        : m_registration(registration), m_watch(registration, kAccessControlList, product::kOnlyChanges) {
        // Without a list nobody has any authority.
        if (Load(m_list) == TVS_OK) m_told = AclAuthority(m_list.Acl(), m_list.AclSize());
        ThreadHasBegun(registration.thread);
    }
    ListWatcher(const ListWatcher&) = delete;
    ListWatcher& operator=(const ListWatcher&) = delete;

    void Run() {
        WatchUntilStopped(m_registration, m_watch, g_timings.firstLook,
                          [this] { return TellChange() == TVS_E_MEMORY ? g_timings.memoryPause : TimeToNextLook(); });
    }

private:
    // The mutex is held no longer than the service needs to answer, and not waited for by a watcher that is to end.
    Status Load(AccessControlList& list) const {
        MutexHold lock;
        if (!lock.AcquireUnless(m_registration.thread.stopEvent, m_registration.databaseMutex))
            return TVS_E_REQUEST_LOCK;
        return list.Load(PrinterDatabaseOf(m_registration));
    }

    // A list that cannot be read is no news.
    Status TellChange() {
        const Status status = Load(m_list);
        if (status != TVS_OK) return status;
        const uint32_t authority = AclAuthority(m_list.Acl(), m_list.AclSize());
        if (authority == m_told) return status;
        m_told = authority;
        Deliver(m_registration.entries[0]);
        return status;
    }

    // Accounts may take long to be asked for, and the list may be another one by then.
    DWORD TimeToNextLook() const {
        const DWORD begun = GetTickCount();
        AccessControlList now;
        const Status status = Load(now);
        if (status == TVS_E_MEMORY) return g_timings.memoryPause;
        if (status == TVS_OK && !(now == m_list)) return 0;
        return GetTickCount() - begun > kPulseComesAgainMs ? g_timings.firstLook : INFINITE;
    }

    const NotificationRegistration& m_registration;
    Watch m_watch;
    AccessControlList m_list;
    uint32_t m_told = 0;
};

} // namespace

DWORD WINAPI UserAuthorityWatch(void* parameter) {
    const NotificationRegistration& registration = RegistrationOf(parameter);
    const bool fromList = SystemVersion().dwPlatformId == VER_PLATFORM_WIN32_NT &&
                          (StoredPortKind(PrinterDatabaseOf(registration)) & TVS_PORT_NO_REQUESTS) == 0;
    if (!fromList) return VariableWatch(parameter);
    ListWatcher(registration).Run();
    return kEnded;
}
