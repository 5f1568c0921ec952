// The steps of changes, and changes that happen together. No state.
#include "registry/changes.h"

#include <algorithm>
#include <optional>

namespace oriel {
namespace {

// A change with its names split and folded, before the first hold.
struct PreparedChange {
    const RegistryChange* change;
    std::vector<KeyName> names;
    std::string path;
    std::string parentPath;
    ValueName value;
};

LSTATUS PrepareChange(const RegistryChange& change, PreparedChange* prepared) {
    prepared->change = &change;
    const LSTATUS error = DivideKeyPath(change.path, &prepared->names);
    if (error != ERROR_SUCCESS) return error;
    prepared->path = JoinKeyPath({}, prepared->names);
    const size_t last = prepared->path.rfind('\\');
    if (last != std::string::npos) prepared->parentPath = prepared->path.substr(0, last);
    if (change.kind == RegistryChange::kDeleteTree && prepared->names.empty()) return ERROR_ACCESS_DENIED;
    return CheckValue(change.name, change.data.size(), &prepared->value);
}

LSTATUS ApplyChange(DatabaseHold& hold, const PreparedChange& prepared) {
    const RegistryChange& change = *prepared.change;
    if (change.kind == RegistryChange::kDeleteTree) return DeleteKeyTree(hold, prepared.path, prepared.parentPath);
    int64_t key = 0;
    if (change.kind == RegistryChange::kMakeKey || change.kind == RegistryChange::kSetValue) {
        const LSTATUS made = MakeKey(hold, kRootKey, {}, prepared.names, &key, nullptr);
        if (made != ERROR_SUCCESS || change.kind == RegistryChange::kMakeKey) return made;
        return WriteValue(hold, key, prepared.value, change.type, change.data);
    }
    const LSTATUS found = FindKey(hold, prepared.path, kRootKey, &key);
    // Without the key there is nothing to delete, and the value is absent.
    if (found == ERROR_FILE_NOT_FOUND) return ERROR_SUCCESS;
    if (found != ERROR_SUCCESS) return found;
    if (change.kind == RegistryChange::kRequireAbsent) {
        Query read(hold, kReadValue);
        if (read.Bind(key).Bind(prepared.value.folded).Next()) return ERROR_ALREADY_EXISTS;
        return static_cast<LSTATUS>(hold.Error());
    }
    Query(hold, kTouchKey).Bind(TimeNow()).Bind(key).Run();
    Query(hold, kDeleteValue).Bind(key).Bind(prepared.value.folded).Run();
    return static_cast<LSTATUS>(hold.Error());
}

LSTATUS ApplyToRoot(DatabaseHold& hold, Root root, const std::vector<PreparedChange>& changes) {
    for (const PreparedChange& prepared : changes) {
        if (prepared.change->root != root) continue;
        const LSTATUS error = ApplyChange(hold, prepared);
        if (error != ERROR_SUCCESS) return error;
    }
    return static_cast<LSTATUS>(hold.Error());
}

LSTATUS AddKey(DatabaseHold& hold, int64_t parent, const std::string& path, std::string_view name, int64_t now,
               int64_t* key) {
    if (path.size() > kLongestPath || std::count(path.begin(), path.end(), '\\') >= kDeepestPath)
        return ERROR_INVALID_PARAMETER;
    Query add(hold, kAddKey);
    if (add.Bind(parent).Bind(path).Bind(name).Bind(now).Next()) *key = add.Number(0);
    Query(hold, kTouchKey).Bind(now).Bind(parent).Run();
    return static_cast<LSTATUS>(hold.Error());
}

bool Concerns(std::span<const RegistryChange> changes, Root root) {
    return std::any_of(changes.begin(), changes.end(),
                       [root](const RegistryChange& change) { return change.root == root; });
}

} // namespace

LSTATUS FindKey(DatabaseHold& hold, const std::string& path, int64_t other, int64_t* key) {
    Query query(hold, kFindKey);
    if (query.Bind(path).Bind(other).Next()) {
        // Both keys come from one statement, so no writer can come in between.
        if (query.Number(1) == 0) return ERROR_KEY_DELETED;
        *key = query.Number(0);
        return ERROR_SUCCESS;
    }
    if (hold.Error() != ERROR_SUCCESS) return static_cast<LSTATUS>(hold.Error());
    // Which of the two keys is missing?
    Query read(hold, kReadKey);
    if (read.Bind(other).Next()) return ERROR_FILE_NOT_FOUND;
    return hold.Error() != ERROR_SUCCESS ? static_cast<LSTATUS>(hold.Error()) : ERROR_KEY_DELETED;
}

LSTATUS MakeKey(DatabaseHold& hold, int64_t parent, std::string_view parentPath, const std::vector<KeyName>& names,
                int64_t* key, bool* created) {
    const int64_t now = TimeNow();
    std::string path(parentPath);
    int64_t at = parent;
    bool made = false;
    for (const KeyName& name : names) {
        if (!path.empty()) path += '\\';
        path += name.folded;
        int64_t found = 0;
        LSTATUS error = FindKey(hold, path, parent, &found);
        made = error == ERROR_FILE_NOT_FOUND;
        if (made) error = AddKey(hold, at, path, name.spelled, now, &found);
        if (error != ERROR_SUCCESS) return error;
        at = found;
    }
    *key = at;
    if (created != nullptr) *created = made;
    return ERROR_SUCCESS;
}

LSTATUS CheckValue(std::string_view name, size_t dataSize, ValueName* result) {
    if (name.size() > kLongestValueName || dataSize > kLargestData || EndsWithinCharacter(name))
        return ERROR_INVALID_PARAMETER;
    *result = {name, FoldName(name)};
    return ERROR_SUCCESS;
}

LSTATUS WriteValue(DatabaseHold& hold, int64_t key, const ValueName& name, DWORD type, std::string_view data) {
    {
        Query touch(hold, kTouchKey);
        if (!touch.Bind(TimeNow()).Bind(key).Run()) return static_cast<LSTATUS>(hold.Error());
        if (touch.Changes() == 0) return ERROR_KEY_DELETED;
    }
    Query(hold, kWriteValue).Bind(key).Bind(name.folded).Bind(name.spelled).Bind(int64_t{type}).Bind(data).Run();
    return static_cast<LSTATUS>(hold.Error());
}

LSTATUS DeleteKeyTree(DatabaseHold& hold, const std::string& path, const std::string& parentPath) {
    // The keys below path start with path and a backslash, so they sort before path and "]", the next character.
    const std::string first = path + '\\';
    const std::string behind = path + ']';
    Query(hold, kDeleteTreeValues).Bind(path).Bind(first).Bind(behind).Run();
    Query(hold, kDeleteTree).Bind(path).Bind(first).Bind(behind).Run();
    int64_t parent = 0;
    const LSTATUS found = FindKey(hold, parentPath, kRootKey, &parent);
    if (found == ERROR_FILE_NOT_FOUND) return ERROR_SUCCESS;
    if (found != ERROR_SUCCESS) return found;
    Query(hold, kTouchKey).Bind(TimeNow()).Bind(parent).Run();
    return static_cast<LSTATUS>(hold.Error());
}

LSTATUS ApplyChanges(std::span<const RegistryChange> changes, size_t* failed) {
    std::vector<PreparedChange> prepared(changes.size());
    for (size_t at = 0; at < changes.size(); ++at) {
        const LSTATUS error = PrepareChange(changes[at], &prepared[at]);
        if (error == ERROR_SUCCESS) continue;
        if (failed != nullptr) *failed = at;
        return error;
    }
    // In the order of the stores' ranks, however the changes are mixed.
    constexpr Root kRoots[2] = {Root::User, Root::Machine};
    std::optional<DatabaseHold> holds[2];
    for (int at = 0; at < 2; ++at) {
        if (!Concerns(changes, kRoots[at])) continue;
        holds[at].emplace(StoreOf(kRoots[at]), DatabaseUse::Change);
        const LSTATUS error = ApplyToRoot(*holds[at], kRoots[at], prepared);
        if (error != ERROR_SUCCESS) return error;
    }
    // Two files cannot be committed at once. All changes are applied before the first commit, so little can still fail.
    for (int at = 1; at >= 0; --at) {
        const DWORD error = holds[at].has_value() ? holds[at]->Commit() : ERROR_SUCCESS;
        if (error != ERROR_SUCCESS) return static_cast<LSTATUS>(error);
    }
    return ERROR_SUCCESS;
}

std::string TextData(std::string_view text) {
    return std::string(text) + '\0';
}

std::string DwordData(DWORD number) {
    return {reinterpret_cast<const char*>(&number), sizeof number};
}

} // namespace oriel
