// A SQLite file of the layer: opened on first need, one connection for each process, shared by its threads.
//
// Readers of other users need no right to write: changes go through a rollback journal. Reading creates nothing; a file
// that is not there yet reads as empty. Every page has a check sum (checked_pages.h), the file a kind and a version,
// and what does not match is ERROR_BADDB. A fork child opens the file anew.
#pragma once

#include "kernel/named_object.h"

#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>
#include <windef.h>

struct sqlite3;
struct sqlite3_stmt;

namespace oriel {

struct DatabaseKind {
    int applicationId; // told by file(1), and by nobody else's databases
    int version;       // of the schema
    const char* schema;
    std::span<const char* const> statements;
    unsigned mode; // of the file, whatever the umask
    // Where the file is. create: make its directories; an empty string when they cannot be had, or not be trusted.
    std::string (*path)(bool create);
};

// A thread that holds several takes the one of the lower rank first: a change of the spool writes the registry.
enum class DatabaseRank { kSpool, kUserRegistry, kMachineRegistry };

// Static objects; they are never destroyed, for threads that outlive the end of main() may still use them.
class Database {
public:
    Database(const DatabaseKind& kind, DatabaseRank rank);

    // Whether this user may change the file, or make it. Asks the system; nothing is opened or created.
    bool MayWrite() const;

private:
    friend class DatabaseHold;
    friend class Query;

    DWORD Open(bool create);
    DWORD Connect(bool create);
    DWORD CreateSchema();
    void Close();
    friend struct DatabaseFork;
    static void CloseAll() __attribute__((destructor));

    const DatabaseKind& m_kind;
    sqlite3* m_connection = nullptr;
    std::vector<sqlite3_stmt*> m_statements;
    // Held while another process is waited for, at most as long as SQLite's busy handler allows.
    std::mutex m_lock;
};

enum class DatabaseUse {
    kLook,     // single statements
    kSnapshot, // several that must fit together
    kChange,   // a transaction; opens for writing, and creates
};

// The right to use a database, for as long as it lives. A change that was not committed is undone.
class DatabaseHold {
public:
    DatabaseHold(Database& database, DatabaseUse use);
    ~DatabaseHold();
    DatabaseHold(const DatabaseHold&) = delete;
    DatabaseHold& operator=(const DatabaseHold&) = delete;

    // ERROR_SUCCESS, ERROR_FILE_NOT_FOUND (only for reading: nothing was ever stored), ERROR_BUSY (held by others for
    // five seconds), ERROR_BADDB, ERROR_ACCESS_DENIED, ERROR_REGISTRY_IO_FAILED, ERROR_DISK_FULL,
    // ERROR_NOT_ENOUGH_MEMORY.
    DWORD Error() const { return m_error; }
    DWORD Commit();

private:
    friend class Query;
    bool Execute(const char* text);
    void Note(DWORD error);

    Database& m_database;
    std::unique_lock<std::mutex> m_held;
    DWORD m_error = 0;
    bool m_inTransaction = false;
};

// A prepared statement in use. Values are bound in order; bytes must live as long as the query.
class Query {
public:
    Query(DatabaseHold& hold, size_t statement);
    ~Query();
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    Query& Bind(int64_t number);
    Query& Bind(std::string_view bytes);
    // Goes to the next row. False behind the last and after an error, which is then the hold's.
    bool Next();
    // For statements without rows: false after an error.
    bool Run();
    int64_t Number(int column) const;
    std::string_view Bytes(int column) const;
    // Rows that the statement changed.
    int64_t Changes() const;

private:
    DatabaseHold& m_hold;
    sqlite3_stmt* m_statement;
    int m_bound = 0;
};

// The rights that are asked for, generic ones and MAXIMUM_ALLOWED resolved. Windows looks at an object's descriptor;
// here everybody who may read the store has the rights of readers, and the others go with the right to write it.
// ERROR_ACCESS_DENIED, also for bits that the kind does not have.
DWORD GrantRights(DWORD asked, const RightsMap& map, DWORD readers, const Database& store, DWORD* granted);

} // namespace oriel
