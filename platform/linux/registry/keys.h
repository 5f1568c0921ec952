// Open keys: what an HKEY stands for. They are in the process's table of handles.
#pragma once

#include "kernel/handles.h"
#include "registry/root.h"

#include <string>
#include <winreg.h>

namespace oriel {

struct OpenKey {
    Root root;
    int64_t id;
    std::string path; // folded, from the root
    REGSAM access;
};

struct KeyObject : Object {
    OpenKey key;
};
extern const ObjectType kKeyType;

// The key that a handle stands for, kept as long as this exists.
class KeyUse {
public:
    // access: the rights that the handle must have.
    KeyUse(HKEY key, REGSAM access);
    ~KeyUse();
    KeyUse(const KeyUse&) = delete;
    KeyUse& operator=(const KeyUse&) = delete;

    // ERROR_SUCCESS, ERROR_INVALID_HANDLE, ERROR_ACCESS_DENIED.
    LSTATUS Error() const { return m_error; }
    const OpenKey& operator*() const { return *m_key; }
    const OpenKey* operator->() const { return m_key; }

private:
    HandlePin m_pin;
    const OpenKey* m_key;
    LSTATUS m_error = ERROR_SUCCESS;
};

// A key below an open one, by its folded path from the root. ERROR_FILE_NOT_FOUND, ERROR_KEY_DELETED (the open one is
// gone).
LSTATUS LocateKey(const OpenKey& base, const std::string& path, int64_t* id);

// What a look-up that found nothing means for a key: ERROR_KEY_DELETED when it is gone, else the code given.
LSTATUS NothingFound(DatabaseHold& hold, const OpenKey& key, LSTATUS otherwise);

// Hands data out as the reading calls do: size in and out, data may be absent. ERROR_MORE_DATA.
LSTATUS CopyData(std::string_view from, LPBYTE data, LPDWORD size);
// The same for a name, whose size counts the NUL on entry only and stays as it is on ERROR_MORE_DATA.
LSTATUS CopyName(std::string_view from, LPSTR name, LPDWORD size);

FILETIME FileTimeOf(int64_t time);

// An absent string as an empty one.
inline std::string_view TextOf(LPCSTR text) {
    return text != nullptr ? std::string_view(text) : std::string_view();
}

} // namespace oriel
