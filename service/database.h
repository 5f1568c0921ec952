// Databases and their variables.
//
// Both are found without a lock, in hash tables whose chains only grow. A database is never freed; what is in it is
// freed only when its creator went away before it was ready. Until it is ready every call on it holds its lock
// (DatabaseUse in clients.h), so nobody can be inside then; from there on nothing of it ever goes away. State: the
// table in database.cpp.
#pragma once

#include "variable.h"

#include <functional>

struct Caller; // clients.h

enum class DatabaseState : DWORD {
    Initialising, // its creator fills it
    Ready,
    GivenUp // its creator went away before it was ready; CreateDatabase starts it afresh
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
    // Watches in the whole database: while there are none, a write looks for no events.
    std::atomic<DWORD> watches = 0;
    std::atomic<VariableSignals*> compositeSignals = nullptr; // of composites that were watched
    DWORD nextClosing = 0; // tick count from which a burst may be closed; of the thread in signals.cpp alone

    Lock lock; // what changes the state, or adds a variable or member list
    Arena arena;
    Forwarding forwarding;
    DWORD creatorHandle GUARDED_BY(lock) = 0;
    HANDLE initialisedEvent GUARDED_BY(lock) = nullptr; // while it is Initialising
    ULONGLONG created GUARDED_BY(lock) = 0;
};

// handle: the one that the creator will have; the database is its to make ready. kAccessDenied: only an administrator
// makes one that the printer list does not have.
product::ServiceStatus CreateDatabase(const Caller& caller, std::string_view name, DWORD handle, Database** database);
// Null when there is none.
Database* FindDatabase(std::string_view name);
// kNotCreator when it is not that handle's to make ready.
product::ServiceStatus EndInitialisation(Database& database, DWORD handle);
// The handle was closed, or its owner died: a database that it was to initialise is given up and those who wait are
// woken.
void HandleIsGone(Database& database, DWORD handle);
ULONGLONG CreationTime(Database& database);

// Null when there is none.
Variable* FindVariable(const Database& database, std::string_view name);
// Whether the caller may add variables or change what composites are made of: whoever makes the database until it is
// ready, then administrators.
bool MayShape(const Database& database, const Caller& caller);
product::ServiceStatus CreateVariable(Database& database, const Caller& caller, std::string_view name,
                                      product::DatabaseType type, const BYTE* bytes, DWORD size);
// The first write to a name that is another variable's and "W": the variable takes the same values as the other.
// kVariableExists: another call made it.
product::ServiceStatus WriteNewCompanion(Database& database, const Caller& caller, std::string_view name,
                                         const BYTE* bytes, DWORD size);

void ForEachDatabase(const std::function<void(Database& database)>& function);

// At the end of the service, when no call is in progress.
void ReleaseDatabases();
