// The Reg... calls for keys and values. State: open keys, as objects in the handle table.
#include "registry/keys.h"

#include "base/call.h"
#include "registry/changes.h"
#include "registry/root.h"
#include "store/database.h"
#include "text/names.h"

#include <cstring>
#include <errhandlingapi.h>
#include <handleapi.h>

namespace oriel {
namespace {

void DropKey(Object* object) {
    if (LastReference(object)) delete static_cast<KeyObject*>(object);
}

constexpr RightsMap kKeyRights = {.read = KEY_READ, .write = KEY_WRITE, .execute = KEY_READ, .all = KEY_ALL_ACCESS};

LSTATUS GrantAccess(Root root, REGSAM asked, REGSAM* granted) {
    if (asked == 0) return ERROR_ACCESS_DENIED;
    return static_cast<LSTATUS>(GrantRights(asked, kKeyRights, KEY_READ, StoreOf(root), granted));
}

LSTATUS HandOut(OpenKey key, PHKEY result) {
    const DWORD access = key.access;
    // Lack of memory throws, and becomes a code in CodeCall.
    HANDLE handle = NewHandle(new KeyObject{{&kKeyType}, std::move(key)}, access);
    if (handle == nullptr) return static_cast<LSTATUS>(GetLastError());
    *result = static_cast<HKEY>(handle);
    return ERROR_SUCCESS;
}

// The predefined keys, open in every process. Never destroyed: threads may outlive main().
const OpenKey* PredefinedKey(HKEY key) {
    static const OpenKey& machine = *new OpenKey{Root::Machine, kRootKey, {}, KEY_ALL_ACCESS};
    static const OpenKey& user = *new OpenKey{Root::User, kRootKey, {}, KEY_ALL_ACCESS};
    if (key == HKEY_LOCAL_MACHINE) return &machine;
    return key == HKEY_CURRENT_USER ? &user : nullptr;
}

LSTATUS DeleteOneKey(DatabaseHold& hold, const OpenKey& base, const std::string& path, const std::string& parentPath) {
    int64_t id = 0;
    const LSTATUS found = FindKey(hold, path, base.id, &id);
    if (found != ERROR_SUCCESS) return found;
    {
        Query count(hold, kCountSubKeys);
        // As on Windows NT: RegDeleteKey refuses a key with subkeys.
        if (count.Bind(id).Next() && count.Number(0) != 0) return ERROR_ACCESS_DENIED;
    }
    return DeleteKeyTree(hold, path, parentPath);
}

} // namespace

const ObjectType kKeyType{.name = "registry key", .drop = DropKey};

KeyUse::KeyUse(HKEY key, REGSAM access) : m_key(PredefinedKey(key)) {
    if (m_key == nullptr) {
        m_pin = PinHandle(key);
        if (m_pin.object != nullptr && m_pin.object->type == &kKeyType)
            m_key = &static_cast<KeyObject*>(m_pin.object)->key;
    }
    if (m_key == nullptr)
        m_error = ERROR_INVALID_HANDLE;
    else if ((m_key->access & access) != access)
        m_error = ERROR_ACCESS_DENIED;
}

KeyUse::~KeyUse() {
    if (m_pin.object != nullptr) UnpinHandle(m_pin);
}

LSTATUS LocateKey(const OpenKey& base, const std::string& path, int64_t* id) {
    if (path.empty()) {
        *id = kRootKey;
        return ERROR_SUCCESS;
    }
    DatabaseHold hold(StoreOf(base.root), DatabaseUse::Look);
    if (hold.Error() == ERROR_FILE_NOT_FOUND) return base.id == kRootKey ? ERROR_FILE_NOT_FOUND : ERROR_KEY_DELETED;
    if (hold.Error() != ERROR_SUCCESS) return static_cast<LSTATUS>(hold.Error());
    return FindKey(hold, path, base.id, id);
}

LSTATUS NothingFound(DatabaseHold& hold, const OpenKey& key, LSTATUS otherwise) {
    // A root key always exists, even before anything was stored.
    if (hold.Error() == ERROR_FILE_NOT_FOUND) return key.id == kRootKey ? otherwise : ERROR_KEY_DELETED;
    Query read(hold, kReadKey);
    if (read.Bind(key.id).Next()) return otherwise;
    return hold.Error() != ERROR_SUCCESS ? static_cast<LSTATUS>(hold.Error()) : ERROR_KEY_DELETED;
}

LSTATUS CopyData(std::string_view from, LPBYTE data, LPDWORD size) {
    if (size == nullptr) return ERROR_SUCCESS;
    const DWORD room = *size;
    *size = static_cast<DWORD>(from.size());
    if (data == nullptr) return ERROR_SUCCESS;
    if (room < from.size()) return ERROR_MORE_DATA;
    std::memcpy(data, from.data(), from.size());
    return ERROR_SUCCESS;
}

LSTATUS CopyName(std::string_view from, LPSTR name, LPDWORD size) {
    if (*size <= from.size()) return ERROR_MORE_DATA;
    std::memcpy(name, from.data(), from.size());
    name[from.size()] = '\0';
    *size = static_cast<DWORD>(from.size());
    return ERROR_SUCCESS;
}

FILETIME FileTimeOf(int64_t time) {
    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}

} // namespace oriel

using namespace oriel;

LSTATUS WINAPI RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD options, REGSAM access, PHKEY result) {
    return CodeCall([&]() -> LSTATUS {
        if (result == nullptr || options != 0) return ERROR_INVALID_PARAMETER;
        const KeyUse base(key, 0);
        if (base.Error() != ERROR_SUCCESS) return base.Error();
        std::vector<KeyName> names;
        OpenKey open{base->root, 0, {}, 0};
        LSTATUS error = DivideKeyPath(TextOf(subKey), &names);
        if (error == ERROR_SUCCESS) error = GrantAccess(base->root, access, &open.access);
        if (error != ERROR_SUCCESS) return error;
        open.path = JoinKeyPath(base->path, names);
        error = LocateKey(*base, open.path, &open.id);
        return error == ERROR_SUCCESS ? HandOut(std::move(open), result) : error;
    });
}

LSTATUS WINAPI RegCreateKeyExA(HKEY key, LPCSTR subKey, DWORD reserved, LPSTR keyClass, DWORD options, REGSAM access,
                               LPSECURITY_ATTRIBUTES security, PHKEY result, LPDWORD disposition) {
    return CodeCall([&]() -> LSTATUS {
        if (result == nullptr || subKey == nullptr || reserved != 0 || !TextOf(keyClass).empty() ||
            options != REG_OPTION_NON_VOLATILE || security != nullptr)
            return ERROR_INVALID_PARAMETER;
        const KeyUse base(key, 0);
        if (base.Error() != ERROR_SUCCESS) return base.Error();
        std::vector<KeyName> names;
        OpenKey open{base->root, 0, {}, 0};
        LSTATUS error = DivideKeyPath(subKey, &names);
        if (error == ERROR_SUCCESS) error = GrantAccess(base->root, access, &open.access);
        if (error != ERROR_SUCCESS) return error;
        open.path = JoinKeyPath(base->path, names);
        bool created = false;
        error = LocateKey(*base, open.path, &open.id);
        // Opened for writing only if the key is missing: most calls find it, also for users who may not write.
        if (error == ERROR_FILE_NOT_FOUND) {
            if ((base->access & KEY_CREATE_SUB_KEY) == 0) return ERROR_ACCESS_DENIED;
            DatabaseHold hold(StoreOf(base->root), DatabaseUse::Change);
            if (hold.Error() != ERROR_SUCCESS) return static_cast<LSTATUS>(hold.Error());
            error = MakeKey(hold, base->id, base->path, names, &open.id, &created);
            if (error == ERROR_SUCCESS) error = static_cast<LSTATUS>(hold.Commit());
        }
        if (error == ERROR_SUCCESS) error = HandOut(std::move(open), result);
        if (error == ERROR_SUCCESS && disposition != nullptr)
            *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
        return error;
    });
}

LSTATUS WINAPI RegCloseKey(HKEY key) {
    if (key == HKEY_LOCAL_MACHINE || key == HKEY_CURRENT_USER) return ERROR_SUCCESS;
    return CodeCall([&]() -> LSTATUS {
        // Closes keys only; CloseHandle alone would close any handle.
        const KeyUse open(key, 0);
        return open.Error() == ERROR_SUCCESS && CloseHandle(key) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
    });
}

LSTATUS WINAPI RegDeleteKeyA(HKEY key, LPCSTR subKey) {
    return CodeCall([&]() -> LSTATUS {
        if (subKey == nullptr) return ERROR_INVALID_PARAMETER;
        const KeyUse base(key, 0);
        if (base.Error() != ERROR_SUCCESS) return base.Error();
        std::vector<KeyName> names;
        LSTATUS error = DivideKeyPath(subKey, &names);
        if (error != ERROR_SUCCESS) return error;
        const std::string path = JoinKeyPath(base->path, names);
        if (path.empty()) return ERROR_ACCESS_DENIED;
        const size_t last = path.rfind('\\');
        const std::string parentPath = last != std::string::npos ? path.substr(0, last) : std::string();

        // Looked up first: the deletion of a missing key must not create the file.
        int64_t id = 0;
        error = LocateKey(*base, path, &id);
        if (error != ERROR_SUCCESS) return error;
        DatabaseHold hold(StoreOf(base->root), DatabaseUse::Change);
        if (hold.Error() != ERROR_SUCCESS) return static_cast<LSTATUS>(hold.Error());
        error = DeleteOneKey(hold, *base, path, parentPath);
        return error == ERROR_SUCCESS ? static_cast<LSTATUS>(hold.Commit()) : error;
    });
}

LSTATUS WINAPI RegEnumKeyExA(HKEY key, DWORD index, LPSTR name, LPDWORD nameSize, LPDWORD reserved, LPSTR keyClass,
                             LPDWORD classSize, PFILETIME lastWrite) {
    return CodeCall([&]() -> LSTATUS {
        if (name == nullptr || nameSize == nullptr || reserved != nullptr) return ERROR_INVALID_PARAMETER;
        if (keyClass != nullptr && (classSize == nullptr || *classSize == 0)) return ERROR_INVALID_PARAMETER;
        const KeyUse open(key, KEY_ENUMERATE_SUB_KEYS);
        if (open.Error() != ERROR_SUCCESS) return open.Error();
        DatabaseHold hold(StoreOf(open->root), DatabaseUse::Look);
        Query row(hold, kEnumKey);
        if (!row.Bind(open->id).Bind(int64_t{index}).Next()) return NothingFound(hold, *open, ERROR_NO_MORE_ITEMS);
        const LSTATUS error = CopyName(row.Bytes(0), name, nameSize);
        if (error != ERROR_SUCCESS) return error;
        // After the name: on failure no output changes. Keys have no class, so it is empty.
        if (lastWrite != nullptr) *lastWrite = FileTimeOf(row.Number(1));
        if (keyClass != nullptr) *keyClass = '\0';
        if (classSize != nullptr) *classSize = 0;
        return ERROR_SUCCESS;
    });
}

LSTATUS WINAPI RegQueryInfoKeyA(HKEY key, LPSTR keyClass, LPDWORD classSize, LPDWORD reserved, LPDWORD subKeys,
                                LPDWORD longestSubKey, LPDWORD longestClass, LPDWORD values, LPDWORD longestValueName,
                                LPDWORD longestValueData, LPDWORD securitySize, PFILETIME lastWrite) {
    return CodeCall([&]() -> LSTATUS {
        if (reserved != nullptr || securitySize != nullptr) return ERROR_INVALID_PARAMETER;
        if (keyClass != nullptr && (classSize == nullptr || *classSize == 0)) return ERROR_INVALID_PARAMETER;
        const KeyUse open(key, KEY_QUERY_VALUE);
        if (open.Error() != ERROR_SUCCESS) return open.Error();
        int64_t found[6] = {};
        DatabaseHold hold(StoreOf(open->root), DatabaseUse::Look);
        Query row(hold, kDescribeKey);
        // A root that was never stored has no row, and reads as zeros.
        if (row.Bind(open->id).Next()) {
            for (int column = 0; column < 6; ++column)
                found[column] = row.Number(column);
        } else if (const LSTATUS none = NothingFound(hold, *open, ERROR_SUCCESS); none != ERROR_SUCCESS) {
            return none;
        }
        if (lastWrite != nullptr) *lastWrite = FileTimeOf(found[0]);
        const struct {
            LPDWORD output;
            int64_t number;
        } numbers[] = {{subKeys, found[1]}, {longestSubKey, found[2]},    {longestClass, 0},
                       {values, found[3]},  {longestValueName, found[4]}, {longestValueData, found[5]},
                       {classSize, 0}};
        for (const auto& [output, number] : numbers)
            if (output != nullptr) *output = static_cast<DWORD>(number);
        if (keyClass != nullptr) *keyClass = '\0';
        return ERROR_SUCCESS;
    });
}

LSTATUS WINAPI RegQueryValueExA(HKEY key, LPCSTR valueName, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
    return CodeCall([&]() -> LSTATUS {
        if (reserved != nullptr || (data != nullptr && size == nullptr)) return ERROR_INVALID_PARAMETER;
        const KeyUse open(key, KEY_QUERY_VALUE);
        if (open.Error() != ERROR_SUCCESS) return open.Error();
        // Folded before the hold: folding may read the registry.
        const std::string folded = FoldName(TextOf(valueName));
        DatabaseHold hold(StoreOf(open->root), DatabaseUse::Look);
        Query row(hold, kReadValue);
        if (!row.Bind(open->id).Bind(folded).Next()) return NothingFound(hold, *open, ERROR_FILE_NOT_FOUND);
        if (type != nullptr) *type = static_cast<DWORD>(row.Number(0));
        return CopyData(row.Bytes(1), data, size);
    });
}

LSTATUS WINAPI RegSetValueExA(HKEY key, LPCSTR valueName, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
    return CodeCall([&]() -> LSTATUS {
        if (reserved != 0 || (data == nullptr && size != 0)) return ERROR_INVALID_PARAMETER;
        const KeyUse open(key, KEY_SET_VALUE);
        if (open.Error() != ERROR_SUCCESS) return open.Error();
        ValueName name;
        LSTATUS error = CheckValue(TextOf(valueName), size, &name);
        if (error != ERROR_SUCCESS) return error;
        DatabaseHold hold(StoreOf(open->root), DatabaseUse::Change);
        if (hold.Error() != ERROR_SUCCESS) return static_cast<LSTATUS>(hold.Error());
        error = WriteValue(hold, open->id, name, type, {reinterpret_cast<const char*>(data), size});
        return error == ERROR_SUCCESS ? static_cast<LSTATUS>(hold.Commit()) : error;
    });
}

LSTATUS WINAPI RegDeleteValueA(HKEY key, LPCSTR valueName) {
    return CodeCall([&]() -> LSTATUS {
        const KeyUse open(key, KEY_SET_VALUE);
        if (open.Error() != ERROR_SUCCESS) return open.Error();
        const std::string folded = FoldName(TextOf(valueName));
        DatabaseHold hold(StoreOf(open->root), DatabaseUse::Change);
        {
            Query remove(hold, kDeleteValue);
            if (!remove.Bind(open->id).Bind(folded).Run()) return static_cast<LSTATUS>(hold.Error());
            if (remove.Changes() == 0) return NothingFound(hold, *open, ERROR_FILE_NOT_FOUND);
        }
        Query(hold, kTouchKey).Bind(TimeNow()).Bind(open->id).Run();
        return static_cast<LSTATUS>(hold.Commit());
    });
}

LSTATUS WINAPI RegEnumValueA(HKEY key, DWORD index, LPSTR valueName, LPDWORD nameSize, LPDWORD reserved, LPDWORD type,
                             LPBYTE data, LPDWORD size) {
    return CodeCall([&]() -> LSTATUS {
        if (valueName == nullptr || nameSize == nullptr || reserved != nullptr || (data != nullptr && size == nullptr))
            return ERROR_INVALID_PARAMETER;
        const KeyUse open(key, KEY_QUERY_VALUE);
        if (open.Error() != ERROR_SUCCESS) return open.Error();
        DatabaseHold hold(StoreOf(open->root), DatabaseUse::Look);
        Query row(hold, kEnumValue);
        if (!row.Bind(open->id).Bind(int64_t{index}).Next()) return NothingFound(hold, *open, ERROR_NO_MORE_ITEMS);
        if (type != nullptr) *type = static_cast<DWORD>(row.Number(1));
        const LSTATUS error = CopyData(row.Bytes(2), data, size);
        return error == ERROR_SUCCESS ? CopyName(row.Bytes(0), valueName, nameSize) : error;
    });
}
