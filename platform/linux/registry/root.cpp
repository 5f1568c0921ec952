// The files of the two stores, their schema and statements, and the paths of keys. State: the two databases.
#include "registry/root.h"

#include "base/directories.h"
#include "text/names.h"

#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace oriel {
namespace {

// Ids of keys are never reused, so the handle of a deleted key finds nothing. Paths are folded and complete: one
// look-up finds a key at any depth. The ids of both tables give the order of creation, in which rows are enumerated.
constexpr const char* kSchema = R"(
CREATE TABLE keys(
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    parent INTEGER NOT NULL,
    path BLOB NOT NULL UNIQUE,
    name BLOB NOT NULL,
    written INTEGER NOT NULL);
CREATE INDEX subkeys ON keys(parent);
CREATE TABLE vals(
    id INTEGER PRIMARY KEY,
    key INTEGER NOT NULL,
    folded BLOB NOT NULL,
    name BLOB NOT NULL,
    type INTEGER NOT NULL,
    data BLOB NOT NULL,
    UNIQUE(key, folded));
CREATE INDEX valuesofkey ON vals(key);
INSERT INTO keys(id, parent, path, name, written) VALUES(1, 0, x'', x'', 0);
)";

constexpr const char* kRegistryStatements[] = {
    "SELECT id, EXISTS(SELECT 1 FROM keys WHERE id = ?2) FROM keys WHERE path = ?1",
    "SELECT parent, name FROM keys WHERE id = ?1",
    "INSERT INTO keys(parent, path, name, written) VALUES(?1, ?2, ?3, ?4) RETURNING id",
    "UPDATE keys SET written = ?1 WHERE id = ?2",
    "DELETE FROM keys WHERE id = ?1",
    "SELECT COUNT(*) FROM keys WHERE parent = ?1",
    "SELECT name, written FROM keys WHERE parent = ?1 ORDER BY id LIMIT 1 OFFSET ?2",
    ("SELECT written, (SELECT COUNT(*) FROM keys WHERE parent = ?1),"
     " (SELECT MAX(LENGTH(name)) FROM keys WHERE parent = ?1), COUNT(vals.id), MAX(LENGTH(vals.name)),"
     " MAX(LENGTH(vals.data)) FROM keys LEFT JOIN vals ON vals.key = keys.id WHERE keys.id = ?1 GROUP BY keys.id"),
    "SELECT id, name FROM keys WHERE parent = ?1 ORDER BY id",
    "SELECT type, data FROM vals WHERE key = ?1 AND folded = ?2",
    ("INSERT INTO vals(key, folded, name, type, data) VALUES(?1, ?2, ?3, ?4, ?5)"
     " ON CONFLICT(key, folded) DO UPDATE SET type = excluded.type, data = excluded.data"),
    "DELETE FROM vals WHERE key = ?1 AND folded = ?2",
    "DELETE FROM vals WHERE key = ?1",
    "SELECT name, type, data FROM vals WHERE key = ?1 ORDER BY id LIMIT 1 OFFSET ?2",
    "SELECT name, type, data FROM vals WHERE key = ?1 ORDER BY id",
    "DELETE FROM vals WHERE key IN (SELECT id FROM keys WHERE path = ?1 OR (path > ?2 AND path < ?3))",
    "DELETE FROM keys WHERE path = ?1 OR (path > ?2 AND path < ?3)",
};

// Empty when it cannot be made, or another user made it.
std::string RegistryDirectory(bool create) {
    const std::string& state = create ? MakeStateDirectory() : StateDirectory();
    if (state.empty()) return {};
    const std::string registry = state + "/registry";
    // Only the owner of the state directory or root makes the shared folders: those that another user made would belong
    // to that user.
    struct stat directory {};
    if (create && stat(state.c_str(), &directory) == 0 && (directory.st_uid == geteuid() || geteuid() == 0)) {
        if (!MakeSafeDirectory(registry, 0755) || !MakeSafeDirectory(registry + "/users", 01777)) return {};
    }
    return lstat(registry.c_str(), &directory) != 0 || IsSafeDirectory(registry) ? registry : "";
}

std::string MachinePath(bool create) {
    const std::string registry = RegistryDirectory(create);
    return registry.empty() ? registry : registry + "/HKLM.sqlite";
}

bool IsOwn(const std::string& path) {
    struct stat directory {};
    return lstat(path.c_str(), &directory) == 0 && S_ISDIR(directory.st_mode) && directory.st_uid == geteuid() &&
           (directory.st_mode & 022) == 0;
}

// The directory of a user whose name somebody else has taken: "<uid>-<time of its creation>". Nobody else can take all
// of those. Empty when there is none.
std::string OtherOwnDirectory(const std::string& users) {
    const std::string begin = std::to_string(geteuid()) + '-';
    std::string oldest;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(users.c_str()), closedir);
    while (const dirent* entry = folder != nullptr ? readdir(folder.get()) : nullptr) {
        std::string name = entry->d_name;
        if (name.starts_with(begin) && (oldest.empty() || name < oldest) && IsOwn(users + '/' + name))
            oldest = std::move(name);
    }
    return oldest.empty() ? oldest : users + '/' + oldest;
}

std::string UserPath(bool create) {
    const std::string registry = RegistryDirectory(create);
    if (registry.empty()) return registry;
    const std::string users = registry + "/users";
    std::string own = users + '/' + std::to_string(geteuid());
    struct stat directory {};
    // Anybody may make a directory of this name in the shared folder, so that of another user is not trusted. Who once
    // had to take another name keeps it.
    if (lstat(own.c_str(), &directory) != 0 || directory.st_uid != geteuid()) {
        if (std::string other = OtherOwnDirectory(users); !other.empty()) own = std::move(other);
    }
    if (create) MakeSafeDirectory(own, 0700);
    if (lstat(own.c_str(), &directory) == 0 && directory.st_uid != geteuid()) {
        char suffix[32];
        std::snprintf(suffix, sizeof suffix, "-%016llx", static_cast<unsigned long long>(TimeNow()));
        own += suffix; // does not exist: nothing was ever stored
        if (create && MakeSafeDirectory(own, 0700)) own = OtherOwnDirectory(users);
    }
    if (lstat(own.c_str(), &directory) == 0 ? !IsOwn(own) : create) return {};
    return own + "/HKCU.sqlite";
}

constexpr int kApplicationId = 0x4f724847; // "OrHG"
constexpr int kVersion = 1;

// Everybody may read what is set for the machine; the keys of a user are private.
constexpr DatabaseKind kMachineKind = {
    .applicationId = kApplicationId,
    .version = kVersion,
    .schema = kSchema,
    .statements = kRegistryStatements,
    .mode = 0644,
    .path = MachinePath,
};
constexpr DatabaseKind kUserKind = {
    .applicationId = kApplicationId,
    .version = kVersion,
    .schema = kSchema,
    .statements = kRegistryStatements,
    .mode = 0600,
    .path = UserPath,
};

Database& g_machine = *new Database(kMachineKind, DatabaseRank::MachineRegistry);
Database& g_user = *new Database(kUserKind, DatabaseRank::UserRegistry);

} // namespace

Database& StoreOf(Root root) {
    return root == Root::Machine ? g_machine : g_user;
}

int64_t TimeNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    constexpr int64_t kSecondsFrom1601To1970 = 11644473600;
    return (now.tv_sec + kSecondsFrom1601To1970) * 10000000 + now.tv_nsec / 100;
}

LSTATUS DivideKeyPath(std::string_view path, std::vector<KeyName>* names) {
    if (path.empty()) return ERROR_SUCCESS;
    if (path.front() == '\\') return ERROR_BAD_PATHNAME;
    if (path.size() > kLongestPath) return ERROR_INVALID_PARAMETER;
    size_t at = 0;
    while (at < path.size()) {
        size_t end = at;
        // A character of two bytes may have a backslash as its second byte.
        while (end < path.size() && path[end] != '\\') {
            if (static_cast<unsigned char>(path[end]) < ' ') return ERROR_INVALID_PARAMETER;
            end += CharacterLength(path, end);
        }
        // Beyond the end: the text ends within a character.
        if (end > path.size() || end - at > kLongestKeyName) return ERROR_INVALID_PARAMETER;
        const std::string_view name = path.substr(at, end - at);
        if (!name.empty()) names->push_back({name, FoldName(name)});
        at = end + 1;
    }
    return ERROR_SUCCESS;
}

std::string JoinKeyPath(std::string_view parent, const std::vector<KeyName>& names) {
    std::string path(parent);
    for (const KeyName& name : names) {
        if (!path.empty()) path += '\\';
        path += name.folded;
    }
    return path;
}

} // namespace oriel
