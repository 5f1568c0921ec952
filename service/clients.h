// The clients: one group for each client process, which is an association of the RPC run-time. What a group holds
// belongs to it and goes with it. State: the association's context; the number of groups, in clients.cpp.
#pragma once

#include "associations.h"
#include "handles.h"

struct Watch; // watches.h

inline constexpr DWORD kNoHandleSlot = kHandleSlots;

// Whether a client's user is the one that runs the service.
enum class ServiceUser : BYTE { Unknown, Yes, No };

struct Group {
    Account* account = nullptr;
    std::atomic<ServiceUser> serviceUser = ServiceUser::Unknown;
    DWORD firstHandleSlot = kNoHandleSlot; // guarded by the lock of handles.cpp
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

// Whether every client is gone.
bool NoClientsAreLeft();
