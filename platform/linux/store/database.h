// A SQLite file of the layer. A process opens it on first use, with one connection that its threads share; a fork child
// opens it anew.
//
// Readers need no right to write and lock nothing (file_layer.h): whatever a reader does, writers go on. Writers
// exclude each other by a lock that only they can open (files.h). Reading creates nothing; a missing file reads as
// empty, an empty file is damaged. A new file appears whole.
//
// Every page has a check sum, the file a kind and a version. What does not match is ERROR_BADDB.
//
// State: the connections, in static objects of the folders that have a database.
#pragma once

#include "kernel/handles.h"
#include "store/file_layer.h"
#include "store/files.h"

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

// What is fixed about a database. The arrays and texts must live as long as the process.
struct DatabaseKind {
    int applicationId; // shown by file(1); unique to these databases
    int version;       // of the schema
    const char* schema;
    // SQL texts; Query names them by index.
    std::span<const char* const> statements;
    unsigned mode; // of a new file, whatever the umask
    // The path of the file. create: makes its directories. Empty when they cannot be made or trusted.
    std::string (*path)(bool create);
};

// A thread that holds several takes the one of the lower rank first: a change of the spool writes the registry.
enum class DatabaseRank { Spool, UserRegistry, MachineRegistry };

enum class DatabaseUse {
    Look,     // single statements of one row
    Snapshot, // several that must fit together, or with many rows; reads the whole file
    Change,   // a transaction; opens for writing, and creates
};

// Only static objects, which are never destroyed: threads may use them after main().
class Database {
public:
    // Registers the database under its rank, for fork and for the end of the process. kind must outlive it.
    Database(const DatabaseKind& kind, DatabaseRank rank);

    // Whether this user may change or create the file. Queries permissions only; opens and creates nothing.
    bool MayWrite() const;

private:
    friend class DatabaseHold;
    friend class Query;

    // All with m_lock held. Error codes as in DatabaseHold::Error.
    DWORD Begin(DatabaseUse use);
    void End(bool committed);
    bool IsOpen() const;
    DWORD Open();
    DWORD Connect();
    DWORD Prepare();
    DWORD CreateStore(const std::string& path);
    void Close();
    // Waits until the file rests, and makes its state the known one. For Cache it is enough that what the connection
    // has in its cache is right.
    enum class Need { Cache, Pages, Whole };
    DWORD Settle(Need need, int64_t deadline);
    bool IsReadable(const SequenceState& state) const;
    bool RecoverFromDeadWriter();
    // The writers' lock, and a transaction in which the store is as the last change left it that came to its end.
    DWORD BeginChange();
    DWORD BeginTransaction();
    friend struct DatabaseFork;
    static void CloseAll() __attribute__((destructor));

    const DatabaseKind& m_kind;
    sqlite3* m_connection = nullptr;
    bool m_isPrepared = false; // the connection, with all of its statements
    std::vector<sqlite3_stmt*> m_statements;
    std::string m_path; // of the open file
    StoreFile m_file;
    WritersLock m_writersLock;
    // Held during waits for other processes, at most as long as Timings.registryBusy.
    std::mutex m_lock;
};

// Holds a database for the life of the guard; other threads of the process wait. A change without Commit is rolled
// back.
class DatabaseHold {
public:
    DatabaseHold(Database& database, DatabaseUse use);
    ~DatabaseHold();
    DatabaseHold(const DatabaseHold&) = delete;
    DatabaseHold& operator=(const DatabaseHold&) = delete;

    // The first error of the hold:
    //
    //   ERROR_SUCCESS
    //   ERROR_FILE_NOT_FOUND      only for reads: nothing was ever stored
    //   ERROR_BUSY                other processes changed it for five seconds, or one died in the midst of that and
    //                             this user may not put it right
    //   ERROR_BADDB               damaged, or not a database of this kind and version
    //   ERROR_ACCESS_DENIED
    //   ERROR_REGISTRY_IO_FAILED
    //   ERROR_DISK_FULL
    //   ERROR_NOT_ENOUGH_MEMORY
    DWORD Error() const { return m_error; }
    // Ends the transaction. Returns Error(); after an error nothing is committed.
    DWORD Commit();

private:
    friend class Query;
    void Note(DWORD error);

    Database& m_database;
    std::unique_lock<std::mutex> m_held;
    DWORD m_error = 0;
    const DatabaseUse m_use;
};

// A prepared statement in use, on the thread of the hold. Parameters are bound in order; bound bytes must outlive the
// query. In a hold with an error, Next and Run return false.
class Query {
public:
    Query(DatabaseHold& hold, size_t statement);
    ~Query();
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    Query& Bind(int64_t number);
    Query& Bind(std::string_view bytes);
    // Goes to the next row. False after the last one and on error, which the hold then has.
    bool Next();
    // Runs a statement without rows. False on error.
    bool Run();
    // Columns of the current row, from 0. The bytes are valid until the next call of Next.
    int64_t Number(int column) const;
    std::string_view Bytes(int column) const;
    // How many rows the statement changed.
    int64_t Changes() const;

private:
    int Step();
    void NoteResult(int result);

    DatabaseHold& m_hold;
    sqlite3_stmt* m_statement;
    int m_bound = 0;
    bool m_isBegun = false;
};

// Resolves generic rights and MAXIMUM_ALLOWED. Windows looks at the security descriptor of an object; here everybody
// who can read the store has the rights `readers`, and all others require the right to write to it.
// ERROR_ACCESS_DENIED, also for bits that the kind does not have; *granted is then untouched.
DWORD GrantRights(DWORD asked, const RightsMap& map, DWORD readers, const Database& store, DWORD* granted);

} // namespace oriel
