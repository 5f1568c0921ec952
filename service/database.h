// Databases and their variables.
//
// Both are found without a lock, in hash tables whose chains only grow. A database is never freed. Its contents are
// freed only when its creator goes away before it is ready; until then every call on it holds its lock (DatabaseUse in
// clients.h), so nobody else is using them. Once it is ready, nothing in it is ever freed. Who may make or change what
// is decided above, in changes.cpp. State: the table in database.cpp.
#pragma once

#include "variable.h"

#include <functional>

enum class DatabaseState : DWORD {
    Initialising, // its creator fills it
    Ready,
    GivenUp // its creator went away before it was ready; CreateDatabase starts it afresh
};

struct ForwardedCall; // forwarding.cpp

// Calls that wait for the printer side of a database, in the order in which they came (forwarding.cpp). The request of
// the first one is in the mailbox.
struct Forwarding {
    Lock lock; // after the lock of watches.cpp, before a variable's
    ForwardedCall* first GUARDED_BY(lock) = nullptr;
    ForwardedCall* last GUARDED_BY(lock) = nullptr;
    DWORD lastId GUARDED_BY(lock) = 0;
    bool awaitsSuccessor GUARDED_BY(lock) = false; // for a request that is open when the time is over
    DWORD successorDue GUARDED_BY(lock) = 0;       // tick count
    bool ending GUARDED_BY(lock) = false; // the printer side was asked to end: no more requests are handed over
};

struct Database {
    static constexpr DWORD kBuckets = 128;

    Database* next = nullptr; // in its bucket; set before it can be seen
    char name[product::kDatabaseNameMax + 1] = {};
    Account* account = nullptr; // charged for it; guarded by the table's lock
    std::atomic<DatabaseState> state = DatabaseState::Initialising;
    std::atomic<DWORD> openHandles = 0;
    std::atomic<DWORD> variableCount = 0;
    std::atomic<Variable*> buckets[kBuckets] = {};
    // Watches in the whole database. While there are none, a write does not look for events.
    std::atomic<DWORD> watches = 0;
    std::atomic<VariableSignals*> compositeSignals = nullptr; // of composites that were watched

    Lock lock; // what changes the state, or adds a variable or member list
    ValueStore store;
    Forwarding forwarding;
    DWORD creatorHandle GUARDED_BY(lock) = 0;
    HANDLE initialisedEvent GUARDED_BY(lock) = nullptr; // while it is Initialising
    ULONGLONG created GUARDED_BY(lock) = 0;
};

// Makes a database, or starts one afresh that was given up. handle: the one that the creator will have; the database is
// its to make ready. kDatabaseExists, kLimitReached, kOutOfMemory.
product::ServiceStatus AddDatabase(Account& account, std::string_view name, DWORD handle, Database** added);
// Null when there is none.
Database* FindDatabase(std::string_view name);
// kNotCreator when it is not that handle's to make ready.
product::ServiceStatus EndInitialisation(Database& database, DWORD handle);
// The handle was closed, or its owner died. A database that it was to initialise is given up, and waiters are woken.
void HandleIsGone(Database& database, DWORD handle);
ULONGLONG CreationTime(Database& database);

// Null when there is none.
Variable* FindVariable(const Database& database, std::string_view name);
// How a variable is made.
struct NewVariable {
    std::string_view name; // the database does not have it yet
    product::DatabaseType type;
    DWORD room; // Variable::room
    bool companion = false;
    VariableRole role = VariableRole::None;
};
// Makes a variable with that value; of a composite without any. kBadName, kLimitReached, kOutOfMemory.
product::ServiceStatus AddVariable(Database& database, Account& account, const NewVariable& wanted, const BYTE* bytes,
                                   DWORD size, Variable** added) REQUIRES(database.lock);

void ForEachDatabase(const std::function<void(Database& database)>& function);

// At the end of the service, when no call is in progress.
void ReleaseDatabases();
