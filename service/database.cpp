// State: the table of databases.
#include "database.h"

#include "product/object_names.h"

#include <new>
#include <string.h>

using namespace product;

namespace {

constexpr DWORD kTableBuckets = 4096;

Lock g_tableLock; // to add a database or start one afresh; taken before a database's own lock
std::atomic<Database*> g_table[kTableBuckets];

std::atomic<Database*>& BucketOf(std::string_view name) {
    return g_table[HashOf(name) % kTableBuckets];
}

// "<database>:Initialized", not set. Null when it cannot be had; waiters then poll.
HANDLE CreateInitialisedEvent(std::string_view database) {
    HANDLE event = CreateEventForEveryone(InitializedEventName(database).text);
    // A process that waited for an earlier database of that name may still hold the event, set.
    if (event) ResetEvent(event);
    return event;
}

void BeginInitialisation(Database& database, DWORD handle) {
    LockHold hold{database.lock};
    database.created = WriteTimeNow();
    database.creatorHandle = handle;
    database.initialisedEvent = CreateInitialisedEvent(database.name);
    database.state.store(DatabaseState::Initialising, std::memory_order_release);
}

void ReleaseContents(Database& database) REQUIRES(database.lock) {
    for (std::atomic<Variable*>& bucket : database.buckets)
        bucket.store(nullptr, std::memory_order_relaxed);
    database.variableCount.store(0, std::memory_order_relaxed);
    ReleasePublication(database.store.publication.exchange(nullptr));
    database.store.publicationIsFull = false;
    database.store.arena.Release();
}

// Wakes those who wait for the database; they ask again.
void EndWaiting(Database& database) REQUIRES(database.lock) {
    if (!database.initialisedEvent) return;
    SetEvent(database.initialisedEvent);
    CloseHandle(database.initialisedEvent);
    database.initialisedEvent = nullptr;
}

// Hands a given-up database to its new creator.
ServiceStatus StartAfresh(Database& database, Account& account, DWORD handle) REQUIRES(g_tableLock) {
    if (database.account != &account) {
        if (!Charge(account, kShareDatabases, 1)) return kLimitReached;
        GiveBack(*database.account, kShareDatabases, 1);
        database.account = &account;
    }
    BeginInitialisation(database, handle);
    return kDone;
}

} // namespace

Database* FindDatabase(std::string_view name) {
    Database* database = BucketOf(name).load(std::memory_order_acquire);
    while (database && database->name != name)
        database = database->next;
    return database;
}

ServiceStatus AddDatabase(Account& account, std::string_view name, DWORD handle, Database** added) {
    LockHold hold{g_tableLock};
    if (Database* database = FindDatabase(name)) {
        if (database->state.load(std::memory_order_acquire) != DatabaseState::GivenUp) return kDatabaseExists;
        *added = database;
        return StartAfresh(*database, account, handle);
    }
    if (!Charge(account, kShareDatabases, 1)) return kLimitReached;
    Database* database = new (std::nothrow) Database;
    if (!database) {
        GiveBack(account, kShareDatabases, 1);
        return kOutOfMemory;
    }
    memcpy(database->name, name.data(), name.size());
    database->account = &account;
    BeginInitialisation(*database, handle);
    std::atomic<Database*>& bucket = BucketOf(name);
    database->next = bucket.load(std::memory_order_relaxed);
    bucket.store(database, std::memory_order_release);
    *added = database;
    return kDone;
}

ULONGLONG CreationTime(Database& database) {
    LockHold hold{database.lock};
    return database.created;
}

ServiceStatus EndInitialisation(Database& database, DWORD handle) {
    LockHold hold{database.lock};
    if (database.state.load(std::memory_order_relaxed) != DatabaseState::Initialising ||
        database.creatorHandle != handle)
        return kNotCreator;
    database.state.store(DatabaseState::Ready, std::memory_order_release);
    EndWaiting(database);
    return kDone;
}

void HandleIsGone(Database& database, DWORD handle) {
    if (database.state.load(std::memory_order_acquire) == DatabaseState::Initialising) {
        LockHold hold{database.lock};
        if (database.state.load(std::memory_order_relaxed) == DatabaseState::Initialising &&
            database.creatorHandle == handle) {
            ReleaseContents(database);
            database.state.store(DatabaseState::GivenUp, std::memory_order_release);
            EndWaiting(database);
        }
    }
    database.openHandles.fetch_sub(1);
}

Variable* FindVariable(const Database& database, std::string_view name) {
    const DWORD hash = HashOf(name);
    Variable* variable = database.buckets[hash % Database::kBuckets].load(std::memory_order_acquire);
    while (variable && !(variable->name->hash == hash && variable->name->Text() == name))
        variable = variable->next.load(std::memory_order_relaxed);
    return variable;
}

ServiceStatus AddVariable(Database& database, Account& account, const NewVariable& wanted, const BYTE* bytes,
                          DWORD size, Variable** added) {
    if (wanted.name.empty() || wanted.name.size() > kVariableNameMax) return kBadName;
    if (database.variableCount.load(std::memory_order_relaxed) == kVariablesPerDatabase) return kLimitReached;
    ServiceStatus status = kDone;
    const Name* name = InternName(account, wanted.name, &status);
    if (!name) return status;
    ValueBlock* block = nullptr;
    if (wanted.type != kTypeComposite) {
        const DWORD capacity = wanted.type == kTypeVariableLength ? size : wanted.room;
        block = NewValueBlock(database.store.arena, account, capacity, bytes, size, &status);
        if (!block) return status;
    }
    void* piece = database.store.arena.Take(account, sizeof(Variable), alignof(Variable), &status);
    if (!piece) return status;
    auto* variable = new (piece) Variable{};
    variable->name = name;
    variable->type = static_cast<BYTE>(wanted.type);
    variable->room = wanted.room;
    variable->companion = wanted.companion;
    variable->role = wanted.role;
    variable->block.store(block, std::memory_order_relaxed);
    TouchWriteTime(*variable, database.store);
    std::atomic<Variable*>& bucket = database.buckets[name->hash % Database::kBuckets];
    variable->next.store(bucket.load(std::memory_order_relaxed), std::memory_order_relaxed);
    bucket.store(variable, std::memory_order_release);
    database.variableCount.fetch_add(1, std::memory_order_relaxed);
    *added = variable;
    return kDone;
}

void ForEachDatabase(const std::function<void(Database& database)>& function) {
    for (std::atomic<Database*>& bucket : g_table)
        for (Database* database = bucket.load(std::memory_order_acquire); database; database = database->next)
            function(*database);
}

void ReleaseDatabases() {
    LockHold hold{g_tableLock};
    for (std::atomic<Database*>& bucket : g_table) {
        Database* database = bucket.exchange(nullptr);
        while (database) {
            Database* next = database->next;
            Account& account = *database->account;
            ReleasePublication(database->store.publication);
            delete database; // its arena credits its own charges
            GiveBack(account, kShareDatabases, 1);
            database = next;
        }
    }
}
