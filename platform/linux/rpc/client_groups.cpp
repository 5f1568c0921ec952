// Association groups and users of a server. State: both lists, under g_lock, which only the start and the end of a
// connection take.
#include "rpc/client_groups.h"

#include "base/lock.h"
#include "base/steps.h"

#include <new>
#include <sys/random.h>

namespace oriel::rpc {
namespace {

constinit Lock g_lock;
User* g_users ORIEL_LOCK_CHECK(guarded_by(g_lock)) = nullptr;
Group* g_groups ORIEL_LOCK_CHECK(guarded_by(g_lock)) = nullptr;
unsigned g_connections ORIEL_LOCK_CHECK(guarded_by(g_lock)) = 0;

template <typename Entry>
void Unlink(Entry*& list, const Entry* entry) {
    Entry** link = &list;
    while (*link != entry)
        link = &(*link)->next;
    *link = entry->next;
}

Group* FindGroup(uint32_t id) ORIEL_LOCK_CHECK(requires_capability(g_lock)) {
    Group* group = g_groups;
    while (group != nullptr && group->id != id)
        group = group->next;
    return group;
}

// Random, so that a client that outlived another server does not find somebody else's group here.
uint32_t NewGroupId() ORIEL_LOCK_CHECK(requires_capability(g_lock)) {
    for (;;) {
        uint32_t id = 0;
        if (getrandom(&id, sizeof id, 0) == sizeof id && id != 0 && FindGroup(id) == nullptr) return id;
    }
}

} // namespace

User* AdmitUser(uid_t id) {
    LockHold hold(g_lock);
    User* user = g_users;
    while (user != nullptr && user->id != id)
        user = user->next;
    if (g_connections >= kMaxConnections || (user != nullptr && user->connections >= kMaxUserConnections))
        return nullptr;
    if (user == nullptr) {
        user = new (std::nothrow) User{.id = id, .next = g_users};
        if (user == nullptr) return nullptr;
        g_users = user;
    }
    ++user->connections;
    ++g_connections;
    return user;
}

void DismissUser(User* user) {
    LockHold hold(g_lock);
    --g_connections;
    if (--user->connections != 0) return;
    Unlink(g_users, user);
    delete user;
}

Group* JoinGroup(uint32_t id, uid_t user, pid_t process) {
    LockHold hold(g_lock);
    Group* group = nullptr;
    if (id != 0) {
        group = FindGroup(id);
        if (group == nullptr || group->user != user || group->process != process) return nullptr;
    } else {
        group = new (std::nothrow) Group{.id = NewGroupId(), .user = user, .process = process, .next = g_groups};
        if (group == nullptr) return nullptr;
        g_groups = group;
    }
    ++group->connections;
    return group;
}

void LeaveGroup(Group* group) {
    {
        LockHold hold(g_lock);
        if (--group->connections != 0) return;
        Unlink(g_groups, group);
    }
    if (const PRPC_RUNDOWN rundown = group->rundown.load()) rundown(group->context.load());
    delete group;
}

namespace {

void LeaveGroupsToParent() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_users = nullptr;
    g_groups = nullptr;
    g_connections = 0;
    g_lock.ForgetOwner();
}

} // namespace
} // namespace oriel::rpc

namespace oriel {
const ForkSteps kRpcGroupsFork{TakeForFork<rpc::g_lock>, ReleaseAfterFork<rpc::g_lock>, rpc::LeaveGroupsToParent};
} // namespace oriel
