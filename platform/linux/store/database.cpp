// Connections: how a file is checked, opened, created and closed, and the Win32 errors for those of SQLite. State: the
// list of databases; each has its connection.
#include "store/database.h"

#include "base/call.h"
#include "base/directories.h"
#include "base/futex.h"
#include "base/lock.h"
#include "base/steps.h"
#include "base/timings.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>
#include <utility>
#include <winerror.h>

namespace oriel {
namespace {

// Every database of the process, by its rank.
Database* g_databases[3];

// SQLite's journal of the store at this path; a file beside it (files.h).
std::string JournalOf(const std::string& path) {
    return path + "-journal";
}
std::string Beside(const std::string& path, const char* suffix) {
    return path.substr(0, path.rfind('.')) + suffix;
}

int64_t BusyDeadline() {
    return DeadlineAfter(g_timings.registryBusy);
}

DWORD ErrorOf(sqlite3* connection, int result) {
    if (result == kStoreMoved) return ERROR_BUSY;
    if (result == SQLITE_IOERR_DATA) return ERROR_BADDB;
    if (result == SQLITE_IOERR_NOMEM) return ERROR_NOT_ENOUGH_MEMORY;
    switch (result & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
        return ERROR_SUCCESS;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
        return ERROR_ACCESS_DENIED;
    case SQLITE_NOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    case SQLITE_FULL:
        return ERROR_DISK_FULL;
    case SQLITE_CANTOPEN:
        return FileError(sqlite3_system_errno(connection));
    case SQLITE_IOERR:
        return ERROR_REGISTRY_IO_FAILED;
    default:
        // The statements fit the schema. If they fail, the file is damaged.
        return ERROR_BADDB;
    }
}

int Execute(sqlite3* connection, const char* text) {
    return sqlite3_exec(connection, text, nullptr, nullptr, nullptr);
}

int ReadNumber(sqlite3* connection, const char* text, int64_t* number) {
    sqlite3_stmt* statement = nullptr;
    int result = sqlite3_prepare_v2(connection, text, -1, &statement, nullptr);
    if (result == SQLITE_OK) result = sqlite3_step(statement);
    if (result == SQLITE_ROW) *number = sqlite3_column_int64(statement, 0);
    const int finished = sqlite3_finalize(statement);
    return result == SQLITE_ROW ? SQLITE_OK : finished;
}

struct Identity {
    int64_t applicationId = 0;
    int64_t version = 0;
    int64_t pages = 0;
};

int ReadIdentity(sqlite3* connection, Identity* identity) {
    int result = ReadNumber(connection, "PRAGMA page_count", &identity->pages);
    if (result == SQLITE_OK) result = ReadNumber(connection, "PRAGMA application_id", &identity->applicationId);
    if (result == SQLITE_OK) result = ReadNumber(connection, "PRAGMA user_version", &identity->version);
    return result;
}

// Whether a journal is there that a writer did not remove. One that cannot be read counts too.
bool JournalIsLeft(const std::string& path) {
    constexpr unsigned char kMagic[] = {0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};
    unsigned char begin[sizeof kMagic];
    Descriptor journal;
    const DWORD error = OpenFile(JournalOf(path), O_RDONLY, 0, &journal);
    if (error != ERROR_SUCCESS) return error != ERROR_FILE_NOT_FOUND;
    return pread(journal.Get(), begin, sizeof begin, 0) == sizeof begin &&
           std::memcmp(begin, kMagic, sizeof begin) == 0;
}

struct ConnectionGuard {
    sqlite3* connection = nullptr;
    ~ConnectionGuard() { sqlite3_close(connection); }
};

} // namespace

Database::Database(const DatabaseKind& kind, DatabaseRank rank) : m_kind(kind) {
    g_databases[static_cast<size_t>(rank)] = this;
}

// A child inherits whole databases. It abandons the connections of its parent: SQLite allows neither their use nor
// their closing after fork.
struct DatabaseFork {
    static void Before() {
        for (Database* database : g_databases)
            if (database != nullptr) database->m_lock.lock();
    }
    static void InParent() {
        for (Database* database : g_databases)
            if (database != nullptr) database->m_lock.unlock();
    }
    static void InChild() {
        for (Database* database : g_databases) {
            if (database == nullptr) continue;
            database->m_connection = nullptr;
            database->m_statements.clear();
            database->m_isPrepared = false;
            database->m_file = StoreFile();
            database->m_writersLock.Forget();
            database->m_lock.unlock();
        }
    }
};
const ForkSteps kStoresFork{DatabaseFork::Before, DatabaseFork::InParent, DatabaseFork::InChild};

bool Database::MayWrite() const {
    std::string path = m_kind.path(false);
    if (path.empty()) path = MissingStateDirectory();
    if (path.empty()) return false;
    if (faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0 && errno != ENOENT) return false;
    // The journal and missing directories are made in the nearest directory that exists.
    do {
        path = DirectoryOf(path);
        if (faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) == 0) return true;
    } while (errno == ENOENT && !path.empty());
    return false;
}

DWORD Database::Begin(DatabaseUse use) {
    if (use == DatabaseUse::Change) return BeginChange();
    DWORD error = Open();
    if (error == ERROR_SUCCESS) error = Settle(use == DatabaseUse::Look ? Need::Cache : Need::Whole, BusyDeadline());
    return error;
}

// False for a file that was replaced or deleted, which is then opened anew.
bool Database::IsOpen() const {
    int moved = 0;
    return m_isPrepared && sqlite3_file_control(m_connection, "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
           moved == 0;
}

DWORD Database::Open() {
    if (IsOpen()) return ERROR_SUCCESS;
    Close();
    const DWORD error = Connect();
    m_isPrepared = error == ERROR_SUCCESS;
    if (!m_isPrepared) Close();
    return error;
}

DWORD Database::Connect() {
    m_path = m_kind.path(false);
    if (m_path.empty()) return MissingStateDirectory().empty() ? ERROR_ACCESS_DENIED : ERROR_FILE_NOT_FOUND;
    const DWORD error = CheckFile(m_path);
    if (error != ERROR_SUCCESS) return error;

    WatchForFork();
    const char* vfs = FileLayer();
    if (vfs == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    m_file.sequence.Place(Beside(m_path, ".seq"));
    // Without SQLITE_OPEN_CREATE, and read-only where the user may not write. m_lock replaces the mutex of SQLite.
    const int result = sqlite3_open_v2(m_path.c_str(), &m_connection,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, vfs);
    if (result != SQLITE_OK) return ErrorOf(m_connection, result);
    AttachStoreFile(m_connection, &m_file);
    // Another user may have written the file: its schema is not trusted.
    sqlite3_db_config(m_connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(m_connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    const int64_t deadline = BusyDeadline();
    for (;;) {
        DWORD prepared = Settle(Need::Pages, deadline);
        if (prepared != ERROR_SUCCESS) return prepared;
        prepared = Prepare();
        if (prepared != ERROR_BUSY || MonotonicNs() >= deadline) return prepared;
    }
}

// ERROR_BUSY: the file was changed meanwhile.
DWORD Database::Prepare() {
    // A change is written to the file when it is committed, not before, and then readers have to wait for it.
    int result = Execute(m_connection, "PRAGMA cell_size_check = ON; PRAGMA temp_store = MEMORY;"
                                       "PRAGMA cache_spill = OFF; PRAGMA synchronous = EXTRA");
    Identity identity;
    if (result == SQLITE_OK) result = ReadIdentity(m_connection, &identity);
    if (result != SQLITE_OK) return ErrorOf(m_connection, result);
    if (identity.applicationId != m_kind.applicationId || identity.version != m_kind.version) return ERROR_BADDB;
    m_statements.resize(m_kind.statements.size());
    for (size_t at = 0; at < m_statements.size(); ++at) {
        if (m_statements[at] != nullptr) continue;
        result = sqlite3_prepare_v3(m_connection, m_kind.statements[at], -1, SQLITE_PREPARE_PERSISTENT,
                                    &m_statements[at], nullptr);
        if (result != SQLITE_OK) return ErrorOf(m_connection, result);
    }
    return ERROR_SUCCESS;
}

// With the writers' lock: whoever looks for the store finds none, or all of it.
DWORD Database::CreateStore(const std::string& path) {
    const char* vfs = FileLayer();
    if (vfs == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    const std::string fresh = path + ".new";
    Descriptor file;
    unlink(fresh.c_str());
    const DWORD error = OpenFile(fresh, O_RDWR | O_CREAT, m_kind.mode, &file);
    if (error != ERROR_SUCCESS) return error;
    {
        ConnectionGuard guard;
        int result = sqlite3_open_v2(fresh.c_str(), &guard.connection,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, vfs);
        int reserve = kPageReserve;
        if (result == SQLITE_OK)
            result = sqlite3_file_control(guard.connection, "main", SQLITE_FCNTL_RESERVE_BYTES, &reserve);
        // The text has the size of pages.
        static_assert(kPageSize == 4096);
        const std::string text =
            "PRAGMA page_size = 4096; PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF; BEGIN;" +
            std::string(m_kind.schema) + "; PRAGMA application_id = " + std::to_string(m_kind.applicationId) +
            "; PRAGMA user_version = " + std::to_string(m_kind.version) + "; COMMIT";
        if (result == SQLITE_OK) result = Execute(guard.connection, text.c_str());
        if (result != SQLITE_OK) return ErrorOf(guard.connection, result);
    }
    // The journal of a store that is gone must not be rolled back into this one. The change that follows makes the name
    // durable.
    if (fsync(file.Get()) != 0 || (unlink(JournalOf(path).c_str()) != 0 && errno != ENOENT) ||
        rename(fresh.c_str(), path.c_str()) != 0)
        return FileError(errno);
    return ERROR_SUCCESS;
}

void Database::Close() {
    for (sqlite3_stmt* statement : m_statements)
        sqlite3_finalize(statement);
    m_statements.clear();
    sqlite3_close(m_connection);
    m_connection = nullptr;
    m_isPrepared = false;
    m_file.sequence.Close();
    m_file.known = false;
    m_file.image = nullptr;
}

bool Database::IsReadable(const SequenceState& state) const {
    // A number of another run of the system may be older than the store. Then a journal tells that there was a change.
    return state.Rests() && (state.isOfThisBoot || !JournalIsLeft(m_path));
}

DWORD Database::Settle(Need need, int64_t deadline) {
    if (m_file.writing) return ERROR_SUCCESS;
    Pauses pauses;
    for (;;) {
        const SequenceState state = m_file.sequence.Read();
        if (need == Need::Cache && m_file.known && state.number - m_file.number <= 1) return ERROR_SUCCESS;
        if (IsReadable(state)) {
            const int result = LoadState(m_connection, m_file, state.number, need == Need::Whole);
            if (result != kStoreMoved) return ErrorOf(m_connection, result);
        } else if (RecoverFromDeadWriter()) {
            continue;
        } else if (m_connection == nullptr) {
            return ERROR_NOT_ENOUGH_MEMORY;
        }
        if (!pauses.Pause(deadline)) return ERROR_BUSY;
    }
}

// True when a change was rolled back whose writer had died. False while the writer lives, and for users who may not
// write: for them the next one who may does it.
bool Database::RecoverFromDeadWriter() {
    if (m_writersLock.Acquire(Beside(m_path, ".lock"), 0) != ERROR_SUCCESS) return false;
    m_file.writing = true;
    const bool recovered = BeginTransaction() == ERROR_SUCCESS;
    End(false);
    return recovered;
}

DWORD Database::BeginChange() {
    const std::string path = IsOpen() ? m_path : m_kind.path(true);
    if (path.empty()) return ERROR_ACCESS_DENIED;
    DWORD error = m_writersLock.Acquire(Beside(path, ".lock"), BusyDeadline());
    // Only another user may make the folder.
    if (error == ERROR_FILE_NOT_FOUND) return ERROR_ACCESS_DENIED;
    if (error != ERROR_SUCCESS) return error;
    m_file.writing = true;
    error = CheckFile(path);
    if (error == ERROR_FILE_NOT_FOUND) error = CreateStore(path);
    if (error == ERROR_SUCCESS) error = Open();
    // It may have been opened on behalf of a user who may not write.
    if (error == ERROR_SUCCESS && sqlite3_db_readonly(m_connection, "main") != 0) {
        Close();
        error = Open();
    }
    return error == ERROR_SUCCESS ? BeginTransaction() : error;
}

DWORD Database::BeginTransaction() {
    DWORD error = m_file.sequence.OpenToWrite(m_kind.mode);
    if (error != ERROR_SUCCESS) return error;
    const SequenceState state = m_file.sequence.Read();
    m_file.written = state.number;
    // Rolls back what a dead writer left.
    error = ErrorOf(m_connection, Execute(m_connection, "BEGIN IMMEDIATE"));
    return error == ERROR_SUCCESS && !state.isOfThisBoot ? m_file.sequence.Write(state.number) : error;
}

void Database::End(bool committed) {
    m_file.image = nullptr;
    if (!m_file.writing) return;
    bool isSound = committed;
    if (!committed && m_connection != nullptr) {
        Execute(m_connection, "ROLLBACK");
        // A transaction can begin only where nothing is left of another.
        isSound = !m_file.IsMarked() || (Execute(m_connection, "BEGIN IMMEDIATE") == SQLITE_OK &&
                                         Execute(m_connection, "ROLLBACK") == SQLITE_OK);
        // Without memory not even that ends. It must end before the lock does: it would undo the change of another.
        if (sqlite3_get_autocommit(m_connection) == 0) Close();
    }
    // Otherwise it stays odd, and the next writer tries again.
    if (m_file.IsMarked() && isSound) m_file.sequence.Write(m_file.written + 1);
    m_file.written = 0;
    m_file.writing = false;
    m_writersLock.Release();
}

// At unload and at exit. A connection in use by another thread is left to the kernel.
void Database::CloseAll() {
    bool all = true;
    for (Database* database : g_databases) {
        if (database == nullptr) continue;
        std::unique_lock held(database->m_lock, std::try_to_lock);
        if (held.owns_lock())
            database->Close();
        else
            all = false;
    }
    if (all) UnregisterFileLayer();
}

DatabaseHold::DatabaseHold(Database& database, DatabaseUse use)
    : m_database(database), m_held(database.m_lock), m_use(use) {
    m_error = CatchLackOfMemory([&] { return database.Begin(use); }, [] { return DWORD{ERROR_NOT_ENOUGH_MEMORY}; });
}

DatabaseHold::~DatabaseHold() {
    m_database.End(false);
    // The next use opens the file again: somebody may have repaired it.
    if (m_error == ERROR_BADDB || m_error == ERROR_REGISTRY_IO_FAILED) m_database.Close();
}

void DatabaseHold::Note(DWORD error) {
    if (m_error == ERROR_SUCCESS) m_error = error;
}

DWORD DatabaseHold::Commit() {
    if (m_error != ERROR_SUCCESS) return m_error;
    m_error = ErrorOf(m_database.m_connection, Execute(m_database.m_connection, "COMMIT"));
    if (m_error == ERROR_SUCCESS) m_database.End(true);
    return m_error;
}

Query::Query(DatabaseHold& hold, size_t statement)
    : m_hold(hold), m_statement(hold.m_error == ERROR_SUCCESS ? hold.m_database.m_statements[statement] : nullptr) {}

Query::~Query() {
    // A hold that ran out of memory may have closed the connection with its statements.
    if (m_statement == nullptr || m_hold.m_database.m_statements.empty()) return;
    sqlite3_reset(m_statement);
    sqlite3_clear_bindings(m_statement);
}

Query& Query::Bind(int64_t number) {
    if (m_statement != nullptr) NoteResult(sqlite3_bind_int64(m_statement, ++m_bound, number));
    return *this;
}

Query& Query::Bind(std::string_view bytes) {
    // SQLite stores a null pointer as NULL, not as an empty value.
    const char* data = bytes.data() != nullptr ? bytes.data() : "";
    if (m_statement != nullptr)
        NoteResult(sqlite3_bind_blob(m_statement, ++m_bound, data, static_cast<int>(bytes.size()), SQLITE_STATIC));
    return *this;
}

void Query::NoteResult(int result) {
    if (result != SQLITE_OK) m_hold.Note(ErrorOf(m_hold.m_database.m_connection, result));
}

// The state that a look began with may be gone. The first row can be asked for again from another.
int Query::Step() {
    int result = sqlite3_step(m_statement);
    if (m_hold.m_use != DatabaseUse::Look || std::exchange(m_isBegun, true)) return result;
    Database& database = m_hold.m_database;
    const int64_t deadline = BusyDeadline();
    while (result == kStoreMoved && MonotonicNs() < deadline) {
        sqlite3_reset(m_statement);
        // Another query of the hold keeps the old state.
        if (sqlite3_txn_state(database.m_connection, "main") != SQLITE_TXN_NONE) break;
        const DWORD error = database.Settle(Database::Need::Pages, deadline);
        m_hold.Note(error);
        if (error != ERROR_SUCCESS) break;
        result = sqlite3_step(m_statement);
    }
    return result;
}

bool Query::Next() {
    if (m_statement == nullptr || m_hold.m_error != ERROR_SUCCESS) return false;
    const int result = Step();
    if (result == SQLITE_ROW) return true;
    m_hold.Note(ErrorOf(m_hold.m_database.m_connection, result));
    return false;
}

bool Query::Run() {
    Next();
    return m_hold.m_error == ERROR_SUCCESS;
}

int64_t Query::Number(int column) const {
    return sqlite3_column_int64(m_statement, column);
}

std::string_view Query::Bytes(int column) const {
    const void* data = sqlite3_column_blob(m_statement, column);
    const int size = sqlite3_column_bytes(m_statement, column);
    return {data != nullptr ? static_cast<const char*>(data) : "", static_cast<size_t>(size)};
}

int64_t Query::Changes() const {
    return sqlite3_changes64(m_hold.m_database.m_connection);
}

DWORD GrantRights(DWORD asked, const RightsMap& map, DWORD readers, const Database& store, DWORD* granted) {
    // A right to wait is in no kind, and harmless.
    DWORD rights = 0;
    if (!MapRights(asked & ~DWORD{SYNCHRONIZE}, map, &rights)) return ERROR_ACCESS_DENIED;
    const bool maximum = (asked & MAXIMUM_ALLOWED) != 0;
    if (maximum || (rights & ~readers) != 0) {
        const bool mayWrite = store.MayWrite();
        if (!mayWrite && (rights & ~readers) != 0) return ERROR_ACCESS_DENIED;
        if (maximum) rights |= mayWrite ? map.all : readers;
    }
    *granted = rights;
    return ERROR_SUCCESS;
}

} // namespace oriel
