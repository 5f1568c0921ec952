// Connections: how a file is checked, opened, created and closed, and the Win32 errors for those of SQLite. State: the
// list of databases; each has its connection.
#include "store/database.h"

#include "base/call.h"
#include "base/directories.h"
#include "base/futex.h"
#include "base/lock.h"
#include "base/steps.h"
#include "base/timings.h"
#include "store/checked_pages.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>
#include <winerror.h>

namespace oriel {
namespace {

constexpr int64_t kBusySliceMs = 5;

// Every database of the process, by its rank.
Database* g_databases[3];

std::string DirectoryOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

DWORD FileError(int error) {
    return error == ENOENT || error == ENOTDIR ? ERROR_FILE_NOT_FOUND : SystemError(error);
}

DWORD ErrorOf(sqlite3* connection, int result) {
    // The writer of a change died, and this user may not roll it back. The next user who may write does it.
    if (result == SQLITE_READONLY_ROLLBACK) return ERROR_BUSY;
    if (result == SQLITE_IOERR_DATA) return ERROR_BADDB;
    switch (result & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
        return ERROR_SUCCESS;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return ERROR_BUSY;
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

// Refuses links, pipes and files of other users. The owner of the directory decides what is in it.
DWORD CheckFile(const std::string& path) {
    struct stat file {};
    struct stat directory {};
    if (lstat(path.c_str(), &file) != 0 || stat(DirectoryOf(path).c_str(), &directory) != 0) return FileError(errno);
    if (!S_ISREG(file.st_mode)) return ERROR_BADDB;
    if (file.st_uid != geteuid() && file.st_uid != 0 && file.st_uid != directory.st_uid) return ERROR_ACCESS_DENIED;
    return ERROR_SUCCESS;
}

// Creates an empty file, which is an empty database to SQLite. No connection may be open: close() would drop the locks
// of the process on the file.
DWORD CreateFileIfMissing(const std::string& path, mode_t mode) {
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (file < 0) return errno == EEXIST ? ERROR_SUCCESS : FileError(errno);
    const int result = fchmod(file, mode);
    const int error = errno;
    close(file);
    return result == 0 ? ERROR_SUCCESS : FileError(error);
}

// Another process has locked the file: retry soon, unless it takes too long or this thread is to be terminated.
int WhenBusy(void*, int count) {
    if (TerminationAsked() || count >= g_timings.registryBusy / kBusySliceMs) return 0;
    const timespec slice{0, kBusySliceMs * kNsPerMs};
    nanosleep(&slice, nullptr);
    return 1;
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

DWORD Database::Open(bool create) {
    // A file that was replaced or deleted is opened anew.
    int moved = 0;
    if (m_connection != nullptr &&
        sqlite3_file_control(m_connection, "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK && moved == 0)
        return ERROR_SUCCESS;
    Close();
    const DWORD error = Connect(create);
    if (error != ERROR_SUCCESS) Close();
    return error;
}

DWORD Database::Connect(bool create) {
    const std::string path = m_kind.path(create);
    if (path.empty()) return create || MissingStateDirectory().empty() ? ERROR_ACCESS_DENIED : ERROR_FILE_NOT_FOUND;
    DWORD error = ERROR_SUCCESS;
    if (create) error = CreateFileIfMissing(path, m_kind.mode);
    if (error == ERROR_SUCCESS) error = CheckFile(path);
    // Only another user may make the folder.
    if (create && error == ERROR_FILE_NOT_FOUND) error = ERROR_ACCESS_DENIED;
    if (error != ERROR_SUCCESS) return error;

    WatchForFork();
    const char* vfs = CheckedPagesVfs();
    if (vfs == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    // Without SQLITE_OPEN_CREATE, and read-only where the user may not write. m_lock replaces the mutex of SQLite.
    int result = sqlite3_open_v2(path.c_str(), &m_connection,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, vfs);
    if (result != SQLITE_OK) return ErrorOf(m_connection, result);
    sqlite3_busy_handler(m_connection, WhenBusy, nullptr);
    // Another user may have written the file: its schema is not trusted.
    sqlite3_db_config(m_connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(m_connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    result = Execute(m_connection, "PRAGMA cell_size_check = ON; PRAGMA temp_store = MEMORY");
    if (result != SQLITE_OK) return ErrorOf(m_connection, result);

    Identity identity;
    result = ReadIdentity(m_connection, &identity);
    if (result != SQLITE_OK) return ErrorOf(m_connection, result);
    if (identity.pages == 0) {
        if (!create) return ERROR_FILE_NOT_FOUND; // created by another process, not yet filled
        error = CreateSchema();
        if (error != ERROR_SUCCESS) return error;
        result = ReadIdentity(m_connection, &identity);
        if (result != SQLITE_OK) return ErrorOf(m_connection, result);
    }
    if (identity.applicationId != m_kind.applicationId || identity.version != m_kind.version) return ERROR_BADDB;

    for (const char* text : m_kind.statements) {
        sqlite3_stmt* statement = nullptr;
        result = sqlite3_prepare_v3(m_connection, text, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
        if (result != SQLITE_OK) return ErrorOf(m_connection, result);
        m_statements.push_back(statement);
    }
    return ERROR_SUCCESS;
}

DWORD Database::CreateSchema() {
    // The text of the PRAGMA below.
    static_assert(kPageSize == 4096);
    int reserve = kPageReserve;
    int result = sqlite3_file_control(m_connection, "main", SQLITE_FCNTL_RESERVE_BYTES, &reserve);
    if (result == SQLITE_OK) result = Execute(m_connection, "PRAGMA page_size = 4096; BEGIN IMMEDIATE");
    int64_t version = 0;
    if (result == SQLITE_OK) result = ReadNumber(m_connection, "PRAGMA user_version", &version);
    // Another process may have created the schema first.
    if (result == SQLITE_OK && version == 0) {
        const std::string text = std::string(m_kind.schema) +
                                 "; PRAGMA application_id = " + std::to_string(m_kind.applicationId) +
                                 "; PRAGMA user_version = " + std::to_string(m_kind.version);
        result = Execute(m_connection, text.c_str());
    }
    if (result == SQLITE_OK) result = Execute(m_connection, "COMMIT");
    return ErrorOf(m_connection, result);
}

void Database::Close() {
    for (sqlite3_stmt* statement : m_statements)
        sqlite3_finalize(statement);
    m_statements.clear();
    sqlite3_close(m_connection);
    m_connection = nullptr;
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
    if (all) UnregisterCheckedPagesVfs();
}

DatabaseHold::DatabaseHold(Database& database, DatabaseUse use) : m_database(database), m_held(database.m_lock) {
    m_error = database.Open(use == DatabaseUse::Change);
    if (m_error != ERROR_SUCCESS || use == DatabaseUse::Look) return;
    m_inTransaction = Execute(use == DatabaseUse::Change ? "BEGIN IMMEDIATE" : "BEGIN");
}

DatabaseHold::~DatabaseHold() {
    if (m_inTransaction) sqlite3_exec(m_database.m_connection, "ROLLBACK", nullptr, nullptr, nullptr);
    // The next use opens the file again: somebody may have repaired it.
    if (m_error == ERROR_BADDB || m_error == ERROR_REGISTRY_IO_FAILED) m_database.Close();
}

bool DatabaseHold::Execute(const char* text) {
    Note(ErrorOf(m_database.m_connection, oriel::Execute(m_database.m_connection, text)));
    return m_error == ERROR_SUCCESS;
}

void DatabaseHold::Note(DWORD error) {
    if (m_error == ERROR_SUCCESS) m_error = error;
}

DWORD DatabaseHold::Commit() {
    if (m_error == ERROR_SUCCESS && Execute("COMMIT")) m_inTransaction = false;
    return m_error;
}

Query::Query(DatabaseHold& hold, size_t statement)
    : m_hold(hold), m_statement(hold.m_error == ERROR_SUCCESS ? hold.m_database.m_statements[statement] : nullptr) {}

Query::~Query() {
    if (m_statement == nullptr) return;
    sqlite3_reset(m_statement);
    sqlite3_clear_bindings(m_statement);
}

Query& Query::Bind(int64_t number) {
    if (m_statement != nullptr) sqlite3_bind_int64(m_statement, ++m_bound, number);
    return *this;
}

Query& Query::Bind(std::string_view bytes) {
    // SQLite stores a null pointer as NULL, not as an empty value.
    const char* data = bytes.data() != nullptr ? bytes.data() : "";
    if (m_statement != nullptr)
        sqlite3_bind_blob(m_statement, ++m_bound, data, static_cast<int>(bytes.size()), SQLITE_STATIC);
    return *this;
}

bool Query::Next() {
    if (m_statement == nullptr) return false;
    const int result = sqlite3_step(m_statement);
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
