// The clients: one group for each client process, which is an association of the RPC run-time; the database handles
// that it holds; and whether it may do what administrators may. What a group holds is released when it ends. State: the
// group is its association's context; the number of groups and the table of handles are in clients.cpp.
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

// The group of the call in progress; made at the first call of its process. Null: *fault is the code to raise.
Group* CallingGroup(const CallersAssociation& caller, RPC_STATUS* fault);

// The database of a handle, for one call. While the database is not ready this holds its lock, so that the database
// cannot be given up during the call.
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

// One table for all clients, looked up without a lock. A handle is the value of a counter that starts at random; the
// low bits are its place in the table. So no number comes again before 2^32 others, and a handle of another client, or
// of an earlier service process, is not found.

// A handle without a database; FindHandle does not find it yet. 0: the bound of this user, or of all, is reached.
DWORD ReserveHandle(Group& group);
// Gives the handle its database, which counts it.
void SetHandle(DWORD handle, Database& database);
void CancelHandle(Group& group, DWORD handle); // one that was not set

// How many of the group's are of that database.
DWORD HandlesOf(const Group& group, const Database& database);

// The database, or null: not a handle of this group.
Database* FindHandle(const Group& group, DWORD handle);
// Ends a handle, and lets go of its database (HandleIsGone). False: not a handle of this group.
bool CloseHandleOf(Group& group, DWORD handle);
// Ends all handles of a group, none of whose calls is in progress.
void CloseAllHandles(Group& group);

// Chooses where the counter starts.
void InitialiseHandles();

// ---- administrators

// Administrators are the account that runs the service, the system's administrators, and the members of one group. The
// value "AdministratorsGroup" of the product's key names the group; without the value it is "lpadmin" or, where that
// does not exist, root's. A client counts as the user and groups that its process had when it connected. The name of
// the group is read at each question.
bool IsAdministrator(const Caller& caller);

// Ends all watches of a group, none of whose calls is in progress. Defined with the watches.
void DropWatches(Group& group);

// Whether every client is gone.
bool NoClientsAreLeft();
