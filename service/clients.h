// The clients: one group for each client process, which is an association of the RPC run-time. What a group holds
// belongs to it and goes with it. State: the association's context; the number of groups and the table of handles, in
// clients.cpp.
#pragma once

#include "associations.h"
#include "database.h"

struct Watch; // watches.h

inline constexpr DWORD kNoHandleSlot = kHandleSlots;

// Whether a client's user is the one that runs the service.
enum class ServiceUser : BYTE { Unknown, Yes, No };

struct Group {
    Account* account = nullptr;
    std::atomic<ServiceUser> serviceUser = ServiceUser::Unknown;
    DWORD firstHandleSlot = kNoHandleSlot; // guarded by the lock of the handles
    Watch* watches = nullptr;              // guarded by the lock of watches.cpp
};

// Who makes the call in progress.
struct Caller {
    Group& group;
    const CallersAssociation& association;
};

// The group of the call in progress, made at the first call of its process. Null: *fault is the run-time's code to
// raise.
Group* CallingGroup(const CallersAssociation& caller, RPC_STATUS* fault);

// The database of a handle, for one call. While the database is not ready its lock is held, so that it cannot be given
// up in the middle of the call.
class DatabaseUse {
public:
    DatabaseUse(const Group& group, DWORD handle);
    ~DatabaseUse();
    DatabaseUse(const DatabaseUse&) = delete;
    DatabaseUse& operator=(const DatabaseUse&) = delete;

    explicit operator bool() const { return m_database != nullptr; } // false: kUnknownDatabase
    Database& operator*() const { return *m_database; }
    Database* operator->() const { return m_database; }
    bool IsReady() const { return !m_locked; }

private:
    Database* m_database;
    bool m_locked = false;
};

// ---- handles

// Database handles of the clients.
//
// One table for all, looked up without a lock. A handle is the value of a counter that starts at random, its place in
// the table are the counter's low bits; so no number comes again before 2^32 others, and one from another client, or
// from the service process before this one, is not found.

// A handle for a database to come; nobody finds it yet. 0: no more of them for this user, or none at all.
DWORD ReserveHandle(Group& group);
// From here on it is found, and counts for the database.
void SetHandle(DWORD handle, Database& database);
void CancelHandle(Group& group, DWORD handle); // one that was not set

// How many of the group's are of that database.
DWORD HandlesOf(const Group& group, const Database& database);

// The database, or null: not a handle of this group.
Database* FindHandle(const Group& group, DWORD handle);
// Ends a handle and tells its database. False: not a handle of this group.
bool CloseHandleOf(Group& group, DWORD handle);
// Ends all of a group, none of whose calls is in progress.
void CloseAllHandles(Group& group);

// Chooses where the counter starts.
void InitialiseHandles();

// ---- administrators

// Who may do what an administrator does. The account that runs the service may, whoever the system counts among its
// administrators, and the members of one group: that which the value "AdministratorsGroup" of the product's key names,
// without it "lpadmin" and, where there is no such group, root's.

// A client counts as who its process was when it connected; the group is asked for anew each time.
bool IsAdministrator(const Caller& caller);

// Ends all watches of a group, none of whose calls is in progress. Defined with the watches.
void DropWatches(Group& group);

// Whether every client is gone.
bool NoClientsAreLeft();
