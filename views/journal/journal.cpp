// Segments.
//   1 entries   2 SQLite   3 segments of a folder   4 writing   5 reading
// State: the writer's.
#include "journal/journal.h"

#include "base/failure.h"
#include "base/layer.h"
#include "base/settings.h"
#include "base/text.h"
#include "model/local.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>

namespace views {

namespace fs = std::filesystem;

namespace {

constexpr int kApplicationId = 0x4F72486A; // "OrHj"
constexpr int kVersion = 1;
constexpr size_t kTextMax = 512;     // of a value on one line
constexpr size_t kJsonMax = 1 << 16; // longer ones are not stored; the bytes are
constexpr int kSegments = 8;         // of full size, in the space for all
constexpr int64_t kDayMs = 24 * 3600 * 1000LL;
constexpr int64_t kSyncMs = 5000; // between waits for the disk
constexpr char kSuffix[] = ".sqlite";
constexpr char kDamaged[] = ".damaged";

// ---- 1 entries

// Ends between characters.
std::string Cut(const std::string& text) {
    if (text.size() <= kTextMax) return text;
    size_t end = kTextMax;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        --end;
    return text.substr(0, end) + "…";
}

StoredValue Stored(const Value& value) {
    std::string json = value.json.dump(-1, ' ', false, Json::error_handler_t::replace);
    if (json.size() > kJsonMax) json.clear();
    return {true, value.bytes, std::move(json), Cut(value.text)};
}

void TellOf(Entry& entry, const Value& value) {
    entry.after = Stored(value);
    entry.meaning = Cut(value.meaning);
    entry.severity = value.severity;
    entry.origin = value.origin;
}

Told ToldOf(ChangeKind kind) {
    switch (kind) {
    case ChangeKind::Value:
        return Told::Value;
    case ChangeKind::PrinterAdded:
        return Told::Added;
    case ChangeKind::PrinterRemoved:
        return Told::Removed;
    case ChangeKind::Stale:
        return Told::Stale;
    case ChangeKind::Fresh:
        return Told::Fresh;
    case ChangeKind::Gap:
        return Told::Gap;
    case ChangeKind::Connected:
        return Told::Connected;
    case ChangeKind::Disconnected:
        return Told::Disconnected;
    }
    return Told::Gap;
}

// ---- 2 SQLite

struct Connection {
    sqlite3* handle = nullptr;
    ~Connection() { sqlite3_close(handle); }
};

struct Statement {
    sqlite3_stmt* handle = nullptr;
    ~Statement() { sqlite3_finalize(handle); }
};

bool Execute(sqlite3* database, const std::string& text) {
    return sqlite3_exec(database, text.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool Prepare(sqlite3* database, const char* text, Statement& statement) {
    return sqlite3_prepare_v2(database, text, -1, &statement.handle, nullptr) == SQLITE_OK;
}

// The first number of the first row; none: there is no row, or it failed.
std::optional<int64_t> NumberOf(sqlite3* database, const char* text) {
    Statement statement;
    if (!Prepare(database, text, statement) || sqlite3_step(statement.handle) != SQLITE_ROW) return std::nullopt;
    return sqlite3_column_int64(statement.handle, 0);
}

bool IsDamage(int result) {
    switch (result & 0xFF) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_SCHEMA:
    case SQLITE_ERROR: // the statements fit the schema
        return true;
    default:
        return false;
    }
}

// Locks nothing: "unix-none". In exclusive mode a connection in WAL mode needs no memory that it shares with others.
int OpenSegment(const std::string& path, int flags, Connection& connection) {
    const int result = sqlite3_open_v2(path.c_str(), &connection.handle,
                                       flags | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_EXRESCODE, "unix-none");
    if (result != SQLITE_OK) return result;
    sqlite3_db_config(connection.handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(connection.handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(connection.handle, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    return sqlite3_exec(connection.handle, "PRAGMA locking_mode = EXCLUSIVE; PRAGMA cell_size_check = ON", nullptr,
                        nullptr, nullptr);
}

bool IsOurs(sqlite3* database) {
    return NumberOf(database, "PRAGMA application_id") == kApplicationId &&
           NumberOf(database, "PRAGMA user_version") == kVersion;
}

constexpr char kSchema[] =
    "CREATE TABLE change(id INTEGER PRIMARY KEY, told INTEGER NOT NULL, at INTEGER NOT NULL, since INTEGER NOT NULL,"
    " printer TEXT NOT NULL, variable TEXT NOT NULL, old_bytes BLOB, old_json TEXT, old_text TEXT,"
    " bytes BLOB, json TEXT, text TEXT, meaning TEXT, severity INTEGER NOT NULL, origin TEXT, missed INTEGER NOT NULL);"
    "CREATE TABLE life(id INTEGER PRIMARY KEY, recorded INTEGER NOT NULL);";
constexpr char kInsert[] = "INSERT INTO change(told, at, since, printer, variable, old_bytes, old_json, old_text,"
                           " bytes, json, text, meaning, severity, origin, missed)"
                           " VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
constexpr char kSelect[] = "SELECT told, at, since, printer, variable, old_bytes, old_json, old_text,"
                           " bytes, json, text, meaning, severity, origin, missed FROM change"
                           " WHERE at >= ?1 AND (?2 = '' OR printer = ?2 OR printer = '') ORDER BY id";
constexpr char kSetLife[] = "INSERT OR REPLACE INTO life(id, recorded) VALUES(1, ?)";

void Bind(sqlite3_stmt* statement, int place, const std::string& text) {
    sqlite3_bind_text(statement, place, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

// Three columns; of a value that is not known they stay null.
void Bind(sqlite3_stmt* statement, int place, const StoredValue& value) {
    if (!value.known) return;
    sqlite3_bind_blob(statement, place, value.bytes.empty() ? "" : static_cast<const void*>(value.bytes.data()),
                      static_cast<int>(value.bytes.size()), SQLITE_STATIC);
    Bind(statement, place + 1, value.json);
    Bind(statement, place + 2, value.text);
}

// Texts of a file, which may say anything.
std::string TextOf(sqlite3_stmt* statement, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(statement, column));
    return text == nullptr ? "" : Printable(std::string_view(text, size));
}

StoredValue ValueOf(sqlite3_stmt* statement, int column) {
    if (sqlite3_column_type(statement, column) != SQLITE_BLOB) return {};
    const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(statement, column));
    StoredValue value{.known = true};
    value.bytes.assign(bytes, bytes + sqlite3_column_bytes(statement, column));
    const auto* json = reinterpret_cast<const char*>(sqlite3_column_text(statement, column + 1));
    if (json != nullptr && Json::accept(json)) value.json = json;
    value.text = TextOf(statement, column + 2);
    return value;
}

// False: the row is none of ours.
bool ReadRow(sqlite3_stmt* row, Entry& entry) {
    const int64_t told = sqlite3_column_int64(row, 0);
    const int64_t severity = sqlite3_column_int64(row, 12);
    if (told < 0 || told > static_cast<int>(Told::Present) || severity < 0 ||
        severity > static_cast<int>(product::Severity::Error))
        return false;
    entry = {.told = static_cast<Told>(told),
             .atMs = sqlite3_column_int64(row, 1),
             .sinceMs = sqlite3_column_int64(row, 2),
             .printer = TextOf(row, 3),
             .variable = TextOf(row, 4),
             .before = ValueOf(row, 5),
             .after = ValueOf(row, 8),
             .meaning = TextOf(row, 11),
             .severity = static_cast<product::Severity>(severity),
             .origin = TextOf(row, 13),
             .missed = static_cast<uint64_t>(std::max<int64_t>(sqlite3_column_int64(row, 14), 0))};
    return true;
}

// ---- 3 segments of a folder

struct Segment {
    int64_t start = 0;
    std::string path;
};

// Oldest first. Empty when there is no folder.
std::vector<Segment> SegmentsOf(const std::string& folder) {
    std::vector<Segment> segments;
    std::error_code error;
    for (fs::directory_iterator file(folder, error), end; !error && file != end; file.increment(error)) {
        const std::string name = file->path().filename().string();
        if (!name.ends_with(kSuffix)) continue;
        int64_t start = 0;
        const char* last = name.data() + name.size() - (sizeof kSuffix - 1);
        const auto [stop, wrong] = std::from_chars(name.data(), last, start);
        if (wrong == std::errc() && stop == last && start >= 0) segments.push_back({start, file->path().string()});
    }
    std::sort(segments.begin(), segments.end(), [](const Segment& a, const Segment& b) { return a.start < b.start; });
    return segments;
}

uint64_t SizeOf(const std::string& path) {
    uint64_t size = 0;
    for (const char* part : {"", "-wal"}) {
        struct stat status {};
        if (stat((path + part).c_str(), &status) == 0) size += static_cast<uint64_t>(status.st_size);
    }
    return size;
}

// Which files they are: somebody may remove or replace them.
struct Files {
    ino_t segment = 0;
    ino_t log = 0;
    bool operator==(const Files&) const = default;
};
Files FilesOf(const std::string& path) {
    const auto numberOf = [](const std::string& file) {
        struct stat status {};
        return stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
    };
    return {numberOf(path), numberOf(path + "-wal")};
}

// Keeps SQLite in other programs, such as its shell, from taking the log away: at its end it does so unless somebody
// reads the file. -1: it cannot be locked, and the recorder notices afterwards.
int LockAsReader(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0x40000000 + 2; // the range of a reader's lock in the format of SQLite
    lock.l_len = 510;
    if (file >= 0) fcntl(file, F_OFD_SETLK, &lock);
    return file;
}

void Remove(const std::string& path) {
    for (const char* part : {"", "-wal"})
        unlink((path + part).c_str());
}

Failure JournalFailure(const std::string& what, const std::string& path, const std::string& why) {
    return {Exit::False, what + " " + path, why, ""};
}

} // namespace

const char* NameOf(Told told) {
    switch (told) {
    case Told::Value:
        return NameOf(ChangeKind::Value);
    case Told::Added:
        return NameOf(ChangeKind::PrinterAdded);
    case Told::Removed:
        return NameOf(ChangeKind::PrinterRemoved);
    case Told::Stale:
        return NameOf(ChangeKind::Stale);
    case Told::Fresh:
        return NameOf(ChangeKind::Fresh);
    case Told::Gap:
        return NameOf(ChangeKind::Gap);
    case Told::Connected:
        return NameOf(ChangeKind::Connected);
    case Told::Disconnected:
        return NameOf(ChangeKind::Disconnected);
    case Told::Present:
        return "present";
    }
    return "";
}

Entry EntryOf(const Change& change, const std::string& why) {
    Entry entry{.told = ToldOf(change.kind),
                .atMs = change.atMs,
                .printer = change.printer,
                .variable = change.variable,
                .meaning = Cut(why),
                .missed = change.missed};
    if (change.before) entry.before = Stored(*change.before);
    if (change.after) TellOf(entry, *change.after);
    return entry;
}

Entry PresentEntry(const std::string& printer, const std::string& variable, const Value& value, int64_t atMs) {
    Entry entry{.told = Told::Present, .atMs = atMs, .printer = printer, .variable = variable};
    TellOf(entry, value);
    return entry;
}

JournalBounds ReadJournalBounds() {
    return {.bytes = uint64_t{ReadNumberSetting(settings::kHistoryMegabytes)} << 20,
            .days = ReadNumberSetting(settings::kHistoryDays)};
}

std::string JournalFolder() {
    return StateDirectoryName() + "/history";
}

// ---- 4 writing

struct JournalWriter::State {
    std::string folder;
    JournalBounds bounds;
    int lock = -1;
    int64_t recordedUntil = 0;
    int64_t syncDue = 0;

    std::optional<Segment> segment{}; // the newest one; none: there is none that takes more
    uint64_t beginning = 0;           // its size with the values that it begins with
    Files files{};                    // since the first commit
    int readerLock = -1;
    std::unique_ptr<Connection> connection{};
    std::unique_ptr<Statement> insert{};
    std::unique_ptr<Statement> setLife{};

    ~State() {
        Close();
        if (lock >= 0) close(lock);
    }

    [[noreturn]] void Throw(const std::string& what) const {
        const char* why = connection && connection->handle ? sqlite3_errmsg(connection->handle) : std::strerror(errno);
        throw JournalFailure(what, segment ? segment->path : folder, why);
    }

    void TakeLock();
    void Close();
    void PutAside(const char* why);
    void Open();
    void Continue();
    void Begin(int64_t now);
    void MakeRoom(int64_t now) const;
    bool IsFull(int64_t now) const;
    void Write(const std::vector<Entry>& entries, int64_t now);
};

void JournalWriter::State::TakeLock() {
    std::error_code error;
    const bool made = fs::create_directory(folder, error);
    if (error) throw JournalFailure("cannot create", folder, error.message());
    if (made) fs::permissions(folder, fs::perms(0755), error); // whatever the umask
    const std::string path = folder + "/recorder.lock";
    lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock < 0) throw JournalFailure("cannot open", path, std::strerror(errno));
    if (flock(lock, LOCK_EX | LOCK_NB) == 0) return;
    throw Failure{Exit::False, "the changes are already recorded, by another process", "", "'oriel log' shows them"};
}

void JournalWriter::State::Close() {
    insert.reset();
    setLife.reset();
    connection.reset();
    if (readerLock >= 0) close(std::exchange(readerLock, -1));
    files = {};
}

// The file is kept for those who want to look at it.
void JournalWriter::State::PutAside(const char* why) {
    const std::string path = segment->path;
    const std::string aside = path.substr(0, path.size() - (sizeof kSuffix - 1)) + kDamaged;
    Close();
    LogFailure(JournalFailure("the journal is damaged:", path, std::string(why) + "; it is put aside as " + aside));
    rename(path.c_str(), aside.c_str());
    unlink((path + "-wal").c_str());
    segment.reset();
}

// Opens the segment, and has SQLite put right what a recorder left that was killed.
void JournalWriter::State::Open() {
    readerLock = LockAsReader(segment->path);
    connection = std::make_unique<Connection>();
    insert = std::make_unique<Statement>();
    setLife = std::make_unique<Statement>();
    if (OpenSegment(segment->path, SQLITE_OPEN_READWRITE, *connection) != SQLITE_OK) Throw("cannot open");
}

// Goes on with the newest segment of an earlier recorder.
void JournalWriter::State::Continue() {
    const std::vector<Segment> segments = SegmentsOf(folder);
    if (segments.empty()) return;
    segment = segments.back();
    Open();
    sqlite3* database = connection->handle;
    if (!IsOurs(database) || !Prepare(database, kInsert, *insert) || !Prepare(database, kSetLife, *setLife)) {
        PutAside("it is none of this version");
        return;
    }
    Statement check;
    const bool sound = Prepare(database, "PRAGMA quick_check(1)", check) && sqlite3_step(check.handle) == SQLITE_ROW &&
                       TextOf(check.handle, 0) == "ok";
    if (!sound) {
        sqlite3_finalize(std::exchange(check.handle, nullptr));
        PutAside("its check failed");
        return;
    }
    Execute(database, "PRAGMA wal_autocheckpoint = 0; PRAGMA synchronous = NORMAL");
    recordedUntil = NumberOf(database, "SELECT recorded FROM life").value_or(0);
}

bool JournalWriter::State::IsFull(int64_t now) const {
    if (files != Files{} && files != FilesOf(segment->path)) return true; // what is written there nobody would see
    return SizeOf(segment->path) > std::max(bounds.bytes / kSegments, 2 * beginning) || now - segment->start > kDayMs;
}

void JournalWriter::State::MakeRoom(int64_t now) const {
    std::vector<Segment> segments = SegmentsOf(folder);
    uint64_t size = 0;
    for (const Segment& each : segments)
        size += SizeOf(each.path);
    // The new one will need room too.
    for (size_t i = 0; i < segments.size(); ++i) {
        const int64_t end = i + 1 < segments.size() ? segments[i + 1].start : now;
        if (size <= bounds.bytes - bounds.bytes / kSegments && now - end <= bounds.days * kDayMs) break;
        size -= SizeOf(segments[i].path);
        Remove(segments[i].path);
    }
}

// A new segment. It appears under its name when it is whole.
void JournalWriter::State::Begin(int64_t now) {
    if (connection) {
        // The log moves into the file, which never changes again.
        insert.reset();
        setLife.reset();
        Execute(connection->handle, "PRAGMA journal_mode = DELETE");
        Close();
    }
    MakeRoom(now);
    const std::vector<Segment> segments = SegmentsOf(folder);
    const int64_t start = segments.empty() ? now : std::max(now, segments.back().start + 1);
    const std::string fresh = folder + "/new";
    segment = {start, fresh};
    Remove(fresh);
    beginning = 0;
    const int file = open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (file < 0) Throw("cannot create");
    fchmod(file, 0644); // whatever the umask; the log gets the same
    const struct Closing {
        int file;
        ~Closing() { close(file); }
    } closing{file};
    Open();
    const std::string schema = "PRAGMA journal_mode = OFF; BEGIN;" + std::string(kSchema) +
                               "PRAGMA application_id = " + std::to_string(kApplicationId) +
                               "; PRAGMA user_version = " + std::to_string(kVersion) +
                               "; COMMIT; PRAGMA journal_mode = WAL";
    if (!Execute(connection->handle, schema)) Throw("cannot create");
    Close();
    const std::string path = folder + "/" + std::to_string(start) + kSuffix;
    unlink((fresh + "-wal").c_str()); // it has no frame
    if (fsync(file) != 0 || rename(fresh.c_str(), path.c_str()) != 0) Throw("cannot rename");
    segment->path = path;
    Open();
    if (!Execute(connection->handle, "PRAGMA wal_autocheckpoint = 0; PRAGMA synchronous = NORMAL") ||
        !Prepare(connection->handle, kInsert, *insert) || !Prepare(connection->handle, kSetLife, *setLife))
        Throw("cannot open");
}

void JournalWriter::State::Write(const std::vector<Entry>& entries, int64_t now) {
    sqlite3* database = connection->handle;
    // A commit that waits for the disk takes those before it along.
    const bool sync = now >= syncDue;
    if (sync) syncDue = now + kSyncMs;
    bool good = Execute(database, sync ? "PRAGMA synchronous = FULL; BEGIN" : "PRAGMA synchronous = NORMAL; BEGIN");
    for (const Entry& entry : entries) {
        if (!good) break;
        sqlite3_stmt* row = insert->handle;
        sqlite3_bind_int(row, 1, static_cast<int>(entry.told));
        sqlite3_bind_int64(row, 2, entry.atMs);
        sqlite3_bind_int64(row, 3, entry.sinceMs);
        Bind(row, 4, entry.printer);
        Bind(row, 5, entry.variable);
        Bind(row, 6, entry.before);
        Bind(row, 9, entry.after);
        Bind(row, 12, entry.meaning);
        sqlite3_bind_int(row, 13, static_cast<int>(entry.severity));
        Bind(row, 14, entry.origin);
        sqlite3_bind_int64(row, 15, static_cast<int64_t>(entry.missed));
        good = sqlite3_step(row) == SQLITE_DONE;
        sqlite3_reset(row);
        sqlite3_clear_bindings(row);
    }
    if (good) {
        sqlite3_bind_int64(setLife->handle, 1, now);
        good = sqlite3_step(setLife->handle) == SQLITE_DONE;
        sqlite3_reset(setLife->handle);
    }
    if (good && Execute(database, "COMMIT")) {
        recordedUntil = now;
        if (files == Files{}) files = FilesOf(segment->path);
        return;
    }
    const int result = sqlite3_errcode(database);
    const std::string why = sqlite3_errmsg(database);
    const std::string path = segment->path;
    Execute(database, "ROLLBACK");
    if (IsDamage(result)) PutAside(why.c_str());
    throw JournalFailure("cannot write", path, why);
}

JournalWriter::JournalWriter(std::string folder, const JournalBounds& bounds) : m_state(std::make_unique<State>()) {
    m_state->folder = std::move(folder);
    m_state->bounds = bounds;
    m_state->TakeLock();
    m_state->Continue();
}

JournalWriter::~JournalWriter() = default;

int64_t JournalWriter::RecordedUntil() const {
    return m_state->recordedUntil;
}

void JournalWriter::Append(const std::vector<Entry>& entries, int64_t now,
                           const std::function<std::vector<Entry>()>& present) {
    State& state = *m_state;
    if (state.connection && !state.IsFull(now)) {
        state.Write(entries, now);
        return;
    }
    try {
        state.Begin(now);
    } catch (const Failure&) {
        state.Close(); // the next call begins again
        state.segment.reset();
        throw;
    }
    std::vector<Entry> all = present();
    all.insert(all.end(), entries.begin(), entries.end());
    state.Write(all, now);
    state.beginning = SizeOf(state.segment->path);
}

// ---- 5 reading

namespace {

// The file of a segment changes at its end only.
struct FileState {
    struct stat status {};
    bool there = false;

    explicit FileState(const std::string& path) : there(stat(path.c_str(), &status) == 0) {}
    bool operator==(const FileState& other) const {
        return there == other.there && status.st_ino == other.status.st_ino && status.st_size == other.status.st_size &&
               status.st_mtim.tv_sec == other.status.st_mtim.tv_sec &&
               status.st_mtim.tv_nsec == other.status.st_mtim.tv_nsec;
    }
};

// SQLITE_DONE: all rows were read.
int ReadSegment(const std::string& path, const JournalQuery& query, int64_t since, std::vector<Entry>& entries,
                int64_t& recordedUntil) {
    entries.clear();
    Connection connection;
    Statement rows;
    int result = OpenSegment(path, SQLITE_OPEN_READONLY, connection);
    if (result != SQLITE_OK) return result;
    if (!IsOurs(connection.handle)) return SQLITE_NOTADB;
    if (!Prepare(connection.handle, kSelect, rows)) return sqlite3_errcode(connection.handle);
    sqlite3_bind_int64(rows.handle, 1, since);
    Bind(rows.handle, 2, query.printer);
    Entry entry;
    while ((result = sqlite3_step(rows.handle)) == SQLITE_ROW) {
        if (!ReadRow(rows.handle, entry)) return SQLITE_CORRUPT;
        const bool wanted =
            query.variables.empty() || entry.variable.empty() ||
            std::find(query.variables.begin(), query.variables.end(), entry.variable) != query.variables.end();
        if (wanted) entries.push_back(std::move(entry));
    }
    recordedUntil = NumberOf(connection.handle, "SELECT recorded FROM life").value_or(recordedUntil);
    return result;
}

} // namespace

int64_t ReadJournal(const std::string& folder, const JournalQuery& query,
                    const std::function<void(const Entry&)>& take) {
    constexpr int kTries = 5; // a segment ends at most once
    const std::vector<Segment> segments = SegmentsOf(folder);
    std::vector<Entry> entries;
    int64_t recordedUntil = 0;
    bool first = true;
    for (size_t i = 0; i < segments.size(); ++i) {
        // Changes are stored shortly after they were made.
        constexpr int64_t kLateMs = 60000;
        if (i + 1 < segments.size() && segments[i + 1].start + kLateMs < query.sinceMs) continue;
        const int64_t since = first && query.before ? 0 : query.sinceMs;
        int result = SQLITE_BUSY;
        for (int tries = 0; tries < kTries; ++tries) {
            const FileState before(segments[i].path);
            result = ReadSegment(segments[i].path, query, since, entries, recordedUntil);
            if (before == FileState(segments[i].path)) break;
        }
        if (result != SQLITE_DONE && access(segments[i].path.c_str(), F_OK) == 0)
            PrintError(
                JournalFailure("the journal is not complete: cannot read", segments[i].path, sqlite3_errstr(result)));
        first = false;
        for (const Entry& entry : entries)
            take(entry);
    }
    return recordedUntil;
}

} // namespace views
