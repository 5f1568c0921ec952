#include "clients.h"

#include "watches.h"

#include <new>

namespace {

Lock g_groupsLock; // one first call of a process at a time
std::atomic<DWORD> g_groups;

// The process's last connection is gone, and its calls have returned.
void __RPC_API RunDown(void* context) {
    auto* group = static_cast<Group*>(context);
    DropWatches(*group);
    CloseAllHandles(*group);
    LeaveAccount(group->account);
    delete group;
    g_groups.fetch_sub(1);
}

Group* MakeGroup(const CallersAssociation& caller, RPC_STATUS* fault) {
    const char* user = nullptr;
    *fault = caller.User(&user);
    if (*fault != RPC_S_OK) return nullptr;
    Group* group = new (std::nothrow) Group;
    if (!group) {
        *fault = RPC_S_OUT_OF_MEMORY;
        return nullptr;
    }
    group->account = EnterAccount(user);
    if (!group->account) {
        delete group;
        *fault = RPC_S_OUT_OF_RESOURCES;
        return nullptr;
    }
    *fault = caller.Monitor(RunDown, group);
    if (*fault != RPC_S_OK) {
        LeaveAccount(group->account);
        delete group;
        return nullptr;
    }
    g_groups.fetch_add(1);
    return group;
}

} // namespace

Group* CallingGroup(const CallersAssociation& caller, RPC_STATUS* fault) {
    void* context = nullptr;
    *fault = caller.Context(&context);
    if (*fault != RPC_S_OK || context) return static_cast<Group*>(context);
    LockHold hold{g_groupsLock};
    *fault = caller.Context(&context);
    if (*fault != RPC_S_OK || context) return static_cast<Group*>(context);
    return MakeGroup(caller, fault);
}

DatabaseUse::DatabaseUse(const Group& group, DWORD handle) NO_LOCK_ANALYSIS : m_database(FindHandle(group, handle)) {
    if (!m_database || m_database->state.load(std::memory_order_acquire) == DatabaseState::Ready) return;
    m_database->lock.Enter();
    // Another thread of the process may have closed the handle meanwhile, or made the database ready.
    const bool isOurs = FindHandle(group, handle) == m_database;
    const DatabaseState state = m_database->state.load(std::memory_order_relaxed);
    m_locked = isOurs && state == DatabaseState::Initialising;
    if (m_locked) return;
    m_database->lock.Leave();
    if (!isOurs || state == DatabaseState::GivenUp) m_database = nullptr;
}

DatabaseUse::~DatabaseUse() NO_LOCK_ANALYSIS {
    if (m_locked) m_database->lock.Leave();
}

bool NoClientsAreLeft() {
    return g_groups.load() == 0;
}
