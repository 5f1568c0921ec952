// Changes of the registry: the steps of all writing calls, and lists of changes in one transaction. No state; any
// thread may call these functions.
#pragma once

#include "registry/root.h"
#include "text/names.h"

#include <span>
#include <string>

namespace oriel {

// The steps run inside a DatabaseHold with kChange. They return ERROR_SUCCESS or a code; after a code, the hold must
// not be committed. They take folded names: folding may itself read the registry (it has the code page), which must not
// happen inside a hold.

// Finds the key below `parent`, whose folded path is parentPath, or makes it with all missing keys above it. *created
// may be null. ERROR_INVALID_PARAMETER when the path becomes too long or too deep.
LSTATUS MakeKey(DatabaseHold& hold, int64_t parent, std::string_view parentPath, const std::vector<KeyName>& names,
                int64_t* key, bool* created);
// Folds the name of a value and checks the limits of name and data: ERROR_INVALID_PARAMETER. `spelled` refers to the
// argument.
struct ValueName {
    std::string_view spelled;
    std::string folded;
};
LSTATUS CheckValue(std::string_view name, size_t dataSize, ValueName* result);
// Adds or replaces a value. ERROR_KEY_DELETED when the key does not exist.
LSTATUS WriteValue(DatabaseHold& hold, int64_t key, const ValueName& name, DWORD type, std::string_view data);
// Deletes a key and everything below it. A missing key is not an error.
LSTATUS DeleteKeyTree(DatabaseHold& hold, const std::string& path, const std::string& parentPath);
// Finds a key by its folded path. ERROR_FILE_NOT_FOUND when it is missing, ERROR_KEY_DELETED when `other` is: a key
// that must exist too.
LSTATUS FindKey(DatabaseHold& hold, const std::string& path, int64_t other, int64_t* key);

// One change of a list.
struct RegistryChange {
    enum Kind {
        kMakeKey,
        kDeleteTree,
        kSetValue,     // makes the key if it is missing
        kDeleteValue,  // a missing value is not an error
        kRequireAbsent // ERROR_ALREADY_EXISTS if the value exists
    };
    Kind kind;
    Root root = Root::Machine;
    std::string path; // as it is spelled
    std::string name = {};
    DWORD type = REG_NONE;
    std::string data = {};
};

// Makes all changes or none, in order, with one transaction for each root. That of HKEY_LOCAL_MACHINE is committed
// first, and stays if the other commit fails. *failed (may be null) is the index of a change that can never be made:
// ERROR_INVALID_PARAMETER, ERROR_BAD_PATHNAME, ERROR_ACCESS_DENIED. After other errors it is untouched.
LSTATUS ApplyChanges(std::span<const RegistryChange> changes, size_t* failed = nullptr);

// The bytes of a REG_SZ (with its NUL) and of a REG_DWORD.
std::string TextData(std::string_view text);
std::string DwordData(DWORD number);

} // namespace oriel
