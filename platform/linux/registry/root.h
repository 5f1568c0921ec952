// The two stores of the registry, their tables, and the names of keys.
//
// HKEY_LOCAL_MACHINE: <state directory>/registry/HKLM.sqlite, mode 0644, owned by the user who created it.
// HKEY_CURRENT_USER: <state directory>/registry/users/<uid>/HKCU.sqlite, mode 0600, in a directory of mode 0700. The
// folder "users" has mode 1777; where somebody else has taken the name, the directory is "<uid>-<time>". user_folders.h
// removes what else is in the folder.
//
// State: the two databases (root.cpp).
#pragma once

#include "store/database.h"

#include <string>
#include <string_view>
#include <vector>
#include <winreg.h>

namespace oriel {

enum class Root { Machine, User };

// The database of a root. Valid for the life of the process.
Database& StoreOf(Root root);

// The id of the row of a root key. It always exists.
inline constexpr int64_t kRootKey = 1;

// Indexes of the statements, in the order of kRegistryStatements: parameters -> columns.
enum RegistryStatement : size_t {
    kFindKey,      // path, id of another key -> id, whether the other exists
    kReadKey,      // id -> parent, name
    kAddKey,       // parent, path, name, written -> id
    kTouchKey,     // written, id
    kDeleteKey,    // id
    kCountSubKeys, // id -> count
    kEnumKey,      // parent, index -> name, written
    kDescribeKey,  // id -> written, subkeys, longest, values, longest name, longest data
    kSubKeys,      // parent -> id, name
    kReadValue,    // key, folded name -> type, data
    kWriteValue,   // key, folded name, name, type, data
    kDeleteValue,  // key, folded name
    kDeleteValues, // key
    kEnumValue,    // key, index -> name, type, data
    kValues,       // key -> name, type, data
    // path, path + "\", path + "]": the keys below path sort between the last two
    kDeleteTreeValues,
    kDeleteTree,
};

// Now, in 100 ns units since 1601-01-01 UTC, like a FILETIME.
int64_t TimeNow();

// Limits, in bytes; kDeepestPath in keys.
inline constexpr size_t kLongestKeyName = 255;
inline constexpr size_t kLongestValueName = 16383;
inline constexpr size_t kLongestPath = 32767;
inline constexpr int kDeepestPath = 512;
inline constexpr size_t kLargestData = 1 << 20;

struct KeyName {
    std::string_view spelled; // refers to the text that was split
    std::string folded;
};

// Splits a path below a key and appends its names. Doubled and trailing backslashes are skipped; an empty path has no
// names. ERROR_BAD_PATHNAME: it starts with a backslash. ERROR_INVALID_PARAMETER: a name or the path is too long, has
// control characters or ends within a character.
LSTATUS DivideKeyPath(std::string_view path, std::vector<KeyName>* names);

// The folded path of a key as in the store: names joined by backslashes, "" for the root. `parent` is a folded path.
std::string JoinKeyPath(std::string_view parent, const std::vector<KeyName>& names);

} // namespace oriel
