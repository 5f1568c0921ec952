// Association groups and users of a server. State: both lists, under g_lock, which only the start and the end of a
// connection take.
#include "rpc/client_groups.h"

#include "base/list.h"
#include "base/lock.h"
#include "base/steps.h"

#include <new>
#include <sys/random.h>

namespace oriel::rpc {
namespace {

constinit Lock g_lock;
List<User> g_users ORIEL_LOCK_CHECK(guarded_by(g_lock));
List<Group> g_groups ORIEL_LOCK_CHECK(guarded_by(g_lock));
unsigned g_connections ORIEL_LOCK_CHECK(guarded_by(g_lock)) = 0;

Group* FindGroup(uint32_t id) ORIEL_LOCK_CHECK(requires_capability(g_lock)) {
    return g_groups.Find([=](const Group& group) { return group.id == id; });
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
    User* user = g_users.Find([=](const User& known) { return known.id == id; });
    if (g_connections >= kMaxConnections || (user != nullptr && user->connections >= kMaxUserConnections))
        return nullptr;
    if (user == nullptr) {
        user = new (std::nothrow) User{.id = id};
        if (user == nullptr) return nullptr;
        g_users.Add(*user);
    }
    ++user->connections;
    ++g_connections;
    return user;
}

void DismissUser(User* user) {
    LockHold hold(g_lock);
    --g_connections;
    if (--user->connections != 0) return;
    g_users.Remove(*user);
    delete user;
}

Group* JoinGroup(uint32_t id, uid_t user, pid_t process) {
    LockHold hold(g_lock);
    Group* group = nullptr;
    if (id != 0) {
        group = FindGroup(id);
        if (group == nullptr || group->user != user || group->process != process) return nullptr;
    } else {
        group = new (std::nothrow) Group{.id = NewGroupId(), .user = user, .process = process};
        if (group == nullptr) return nullptr;
        g_groups.Add(*group);
    }
    ++group->connections;
    return group;
}

void LeaveGroup(Group* group) {
    {
        LockHold hold(g_lock);
        if (--group->connections != 0) return;
        g_groups.Remove(*group);
    }
    if (const PRPC_RUNDOWN rundown = group->rundown.load()) rundown(group->context.load());
    delete group;
}

namespace {

void LeaveGroupsToParent() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_users.Forget();
    g_groups.Forget();
    g_connections = 0;
    g_lock.ForgetOwner();
}

} // namespace
} // namespace oriel::rpc

namespace oriel {
const ForkSteps kRpcGroupsFork{TakeForFork<rpc::g_lock>, ReleaseAfterFork<rpc::g_lock>, rpc::LeaveGroupsToParent};
} // namespace oriel
