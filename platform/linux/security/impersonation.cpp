// Impersonation: the kernel keeps what a thread acts as; kept here is what it was before.
//
// State: t_own and t_client of each thread; g_firstThreadsOwn, that of the process's first thread, since the others
// read their process's credentials from that thread.
#include "security/impersonation.h"

#include "base/lock.h"
#include "base/steps.h"

#include <cstdlib>
#include <memory>
#include <sys/syscall.h>
#include <unistd.h>
#include <winerror.h>

namespace oriel {
namespace {

bool IsFirstThread() {
    return syscall(SYS_gettid) == getpid();
}

constinit Lock g_firstThreadLock;
const Credentials* g_firstThreadsOwn ORIEL_LOCK_CHECK(guarded_by(g_firstThreadLock)) = nullptr;

// Null: the thread does not impersonate by our doing.
class OwnBefore {
public:
    ~OwnBefore() { Set(nullptr); }
    const Credentials* Get() const { return m_own.get(); }
    void Set(std::unique_ptr<Credentials> own) {
        if (m_own == nullptr && own == nullptr) return;
        LockHold hold(g_firstThreadLock);
        m_own = std::move(own);
        if (IsFirstThread()) g_firstThreadsOwn = m_own.get();
    }

private:
    std::unique_ptr<Credentials> m_own;
};
thread_local OwnBefore t_own;
thread_local std::unique_ptr<Credentials> t_client; // whom a server's thread speaks for

// The thread that forked is the first one of the child.
void InForkChild() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_firstThreadsOwn = t_own.Get();
    g_firstThreadLock.ForgetOwner();
}

// Effective and saved user differ only in a thread that may go back to another one.
bool MayActForAnother() {
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    return t_own.Get() != nullptr || (getresuid(&real, &effective, &saved) == 0 && effective != saved);
}

} // namespace

const ForkSteps kImpersonationFork{TakeForFork<g_firstThreadLock>, ReleaseAfterFork<g_firstThreadLock>, InForkChild};

Credentials OwnCredentials() {
    if (t_own.Get() != nullptr) return *t_own.Get();
    if (IsFirstThread()) return ThreadCredentials();
    LockHold hold(g_firstThreadLock);
    if (g_firstThreadsOwn != nullptr) return *g_firstThreadsOwn;
    Credentials own;
    return ProcessCredentials(getpid(), own) ? own : ThreadCredentials();
}

bool ImpersonatedCredentials(Credentials& credentials) {
    if (t_client != nullptr) {
        credentials = *t_client;
        return true;
    }
    if (t_own.Get() == nullptr && IsFirstThread()) return false;
    Credentials now = ThreadCredentials();
    if (t_own.Get() == nullptr && now == OwnCredentials()) return false;
    credentials = std::move(now);
    return true;
}

void SpeakFor(std::unique_ptr<Credentials> client) {
    t_client = std::move(client);
}

AsOwnProcess::AsOwnProcess() {
    if (!MayActForAnother() || !ImpersonatedCredentials(m_impersonated)) return;
    m_changed = TakeOn(OwnCredentials());
}

AsOwnProcess::~AsOwnProcess() {
    // Going on with more rights than the caller took on would be worse than ending.
    if (m_changed && !TakeOn(m_impersonated)) std::abort();
}

DWORD ActAs(const Credentials& credentials) {
    WatchForFork();
    auto own = std::make_unique<Credentials>(OwnCredentials());
    const Credentials before = ThreadCredentials();
    // A thread that acts for one user goes to the next by way of itself, who may.
    if (!TakeOn(*own)) return ERROR_PRIVILEGE_NOT_HELD;
    const bool first = t_own.Get() == nullptr;
    t_own.Set(std::move(own)); // before the change, which other threads may see at once
    if (TakeOn(credentials)) return ERROR_SUCCESS;
    if (!TakeOn(before)) std::abort();
    if (first) t_own.Set(nullptr);
    return ERROR_PRIVILEGE_NOT_HELD;
}

DWORD ActAsProcess() {
    t_client.reset();
    Credentials impersonated;
    if (!ImpersonatedCredentials(impersonated)) return ERROR_SUCCESS;
    if (!TakeOn(OwnCredentials())) return ERROR_ACCESS_DENIED;
    t_own.Set(nullptr);
    return ERROR_SUCCESS;
}

} // namespace oriel
