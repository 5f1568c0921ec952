// Open keys, the objects of HKEY handles. State: in the handle table of the process.
#pragma once

#include "kernel/handles.h"
#include "registry/root.h"

#include <string>
#include <winreg.h>

namespace oriel {

// A key as it was opened. It may have been deleted since: its id is then unknown to the store.
struct OpenKey {
    Root root;
    int64_t id;       // of its row; never reused
    std::string path; // folded, from the root
    REGSAM access;    // granted rights
};

struct KeyObject : Object {
    OpenKey key;
};
extern const ObjectType kKeyType;

// The key of a handle or of a predefined key, kept alive for the life of the guard.
class KeyUse {
public:
    // access: the rights that the handle must have; 0 for none.
    KeyUse(HKEY key, REGSAM access);
    ~KeyUse();
    KeyUse(const KeyUse&) = delete;
    KeyUse& operator=(const KeyUse&) = delete;

    // ERROR_SUCCESS, ERROR_INVALID_HANDLE or ERROR_ACCESS_DENIED. After an error there is no key to use.
    LSTATUS Error() const { return m_error; }
    const OpenKey& operator*() const { return *m_key; }
    const OpenKey* operator->() const { return m_key; }

private:
    HandlePin m_pin;
    const OpenKey* m_key;
    LSTATUS m_error = ERROR_SUCCESS;
};

// Finds the row of a key by its folded path from the root, in the root of `base`. ERROR_FILE_NOT_FOUND, or
// ERROR_KEY_DELETED when `base` itself is gone.
LSTATUS LocateKey(const OpenKey& base, const std::string& path, int64_t* id);

// The code for a look-up without a result: ERROR_KEY_DELETED when the key is gone, the error of the hold, or
// `otherwise`.
LSTATUS NothingFound(DatabaseHold& hold, const OpenKey& key, LSTATUS otherwise);

// Copies data to a caller: *size is the room on entry and the length on return, also for ERROR_MORE_DATA. data null:
// only the length. size null: nothing.
LSTATUS CopyData(std::string_view from, LPBYTE data, LPDWORD size);
// Copies a name with its NUL. *size counts the NUL on entry only, and is unchanged on ERROR_MORE_DATA.
LSTATUS CopyName(std::string_view from, LPSTR name, LPDWORD size);

// From a time of the store (TimeNow).
FILETIME FileTimeOf(int64_t time);

// A null pointer is an empty string.
inline std::string_view TextOf(LPCSTR text) {
    return text != nullptr ? std::string_view(text) : std::string_view();
}

} // namespace oriel
