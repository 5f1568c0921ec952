// Changes of the registry: the steps of which every writing call is made, and lists of changes that happen together.
#pragma once

#include "registry/root.h"
#include "text/names.h"

#include <span>
#include <string>

namespace oriel {

// Steps within a DatabaseHold that changes. ERROR_SUCCESS or a code; after a code the hold is not to be committed.
// Names come folded, for folding may read the registry itself: the code page is kept there.

// The key below parent (whose folded path is given), made when it is missing with all above it. *created may be null.
LSTATUS MakeKey(DatabaseHold& hold, int64_t parent, std::string_view parentPath, const std::vector<KeyName>& names,
                int64_t* key, bool* created);
// A value's names, and whether they and the data keep to the limits (else ERROR_INVALID_PARAMETER).
struct ValueName {
    std::string_view spelled;
    std::string folded;
};
LSTATUS CheckValue(std::string_view name, size_t dataSize, ValueName* result);
// ERROR_KEY_DELETED when there is no such key.
LSTATUS WriteValue(DatabaseHold& hold, int64_t key, const ValueName& name, DWORD type, std::string_view data);
// Deletes a key with all below it; one that is not there is no error.
LSTATUS DeleteKeyTree(DatabaseHold& hold, const std::string& path, const std::string& parentPath);
// *key: ERROR_FILE_NOT_FOUND when there is none. other: a key that must exist too, else ERROR_KEY_DELETED.
LSTATUS FindKey(DatabaseHold& hold, const std::string& path, int64_t other, int64_t* key);

struct RegistryChange {
    enum Kind {
        kMakeKey,
        kDeleteTree,
        kSetValue,     // the key is made when it is missing
        kDeleteValue,  // one that is not there is no error
        kRequireAbsent // the value must not exist: ERROR_ALREADY_EXISTS
    };
    Kind kind;
    Root root = Root::kMachine;
    std::string path; // as it is spelled
    std::string name = {};
    DWORD type = REG_NONE;
    std::string data = {};
};

// Does all of them or none: one transaction for each root, HKEY_LOCAL_MACHINE's being ended first. The order between
// changes of one root is kept. *failed (may be null): the change that can never be made, with ERROR_INVALID_PARAMETER,
// ERROR_BAD_PATHNAME or ERROR_ACCESS_DENIED; for other failures it is untouched.
LSTATUS ApplyChanges(std::span<const RegistryChange> changes, size_t* failed = nullptr);

// The data of a REG_SZ, with its NUL, and of a REG_DWORD.
std::string TextData(std::string_view text);
std::string DwordData(DWORD number);

} // namespace oriel
