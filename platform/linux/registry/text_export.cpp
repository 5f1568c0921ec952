// Writes .reg text (REGEDIT4). The keys are read in one transaction and written after it. No state.
#include "base/call.h"
#include "registry/changes.h"
#include "registry/keys.h"
#include "registry/root.h"
#include "text/names.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <winreg_text.h>

namespace oriel {
namespace {

struct CollectedValue {
    std::string name;
    DWORD type;
    std::string data;
};

struct CollectedKey {
    int64_t id;
    int depth;
    std::string path; // not folded, with the name of the root
    std::vector<CollectedValue> values = {};
};

LSTATUS SpelledPath(DatabaseHold& hold, Root root, int64_t id, CollectedKey* key) {
    std::string path;
    // From the key up: a row has only the id of its parent, and its path is folded.
    while (id != kRootKey) {
        Query row(hold, kReadKey);
        if (!row.Bind(id).Next())
            return hold.Error() != ERROR_SUCCESS ? static_cast<LSTATUS>(hold.Error()) : ERROR_KEY_DELETED;
        path = '\\' + std::string(row.Bytes(1)) + path;
        id = row.Number(0);
        // A damaged store may have a cycle of parents.
        if (++key->depth > kDeepestPath) return ERROR_BADDB;
    }
    key->path = (root == Root::Machine ? "HKEY_LOCAL_MACHINE" : "HKEY_CURRENT_USER") + path;
    return ERROR_SUCCESS;
}

void CollectValues(DatabaseHold& hold, CollectedKey* key) {
    Query row(hold, kValues);
    row.Bind(key->id);
    while (row.Next())
        key->values.push_back(
            {std::string(row.Bytes(0)), static_cast<DWORD>(row.Number(1)), std::string(row.Bytes(2))});
}

// Parents before their children, and children in their order: an import creates them in the same order.
LSTATUS CollectTree(Root root, int64_t top, std::vector<CollectedKey>* keys) {
    DatabaseHold hold(StoreOf(root), DatabaseUse::Snapshot);
    CollectedKey first{top, 0, {}};
    const LSTATUS found = SpelledPath(hold, root, top, &first);
    if (found != ERROR_SUCCESS) return found;
    // Nothing was ever stored: the root is empty.
    if (hold.Error() == ERROR_FILE_NOT_FOUND) {
        keys->push_back(std::move(first));
        return ERROR_SUCCESS;
    }
    std::vector<CollectedKey> waiting{std::move(first)};
    while (!waiting.empty()) {
        CollectedKey key = std::move(waiting.back());
        waiting.pop_back();
        CollectValues(hold, &key);
        const size_t before = waiting.size();
        Query row(hold, kSubKeys);
        row.Bind(key.id);
        while (row.Next())
            waiting.push_back({row.Number(0), key.depth + 1, key.path + '\\' + std::string(row.Bytes(1))});
        if (hold.Error() != ERROR_SUCCESS) return static_cast<LSTATUS>(hold.Error());
        if (key.depth > kDeepestPath) return ERROR_BADDB;
        // The last entry is taken first.
        std::reverse(waiting.begin() + static_cast<ptrdiff_t>(before), waiting.end());
        keys->push_back(std::move(key));
    }
    return ERROR_SUCCESS;
}

std::string Quoted(std::string_view text) {
    std::string quoted = "\"";
    for (size_t at = 0; at < text.size();) {
        // The second byte of a character may look like a backslash.
        const size_t length = CharacterLength(text, at);
        if (length == 1 && (text[at] == '\\' || text[at] == '"')) quoted += '\\';
        quoted += text.substr(at, length);
        at += length;
    }
    return quoted + '"';
}

// Whether quoted text can represent the value exactly: one NUL, at the end, no line break and no incomplete character.
// Otherwise it is written in hexadecimal.
bool IsPlainText(const CollectedValue& value) {
    if (value.type != REG_SZ || value.data.empty() || value.data.find('\0') != value.data.size() - 1) return false;
    const std::string_view text(value.data.data(), value.data.size() - 1);
    return text.find_first_of("\r\n") == std::string_view::npos && !EndsWithinCharacter(text);
}

void WriteBytes(const CollectedValue& value, std::string* line) {
    constexpr size_t kLineWidth = 77;
    char text[16];
    std::snprintf(text, sizeof text, value.type == REG_BINARY ? "hex:" : "hex(%x):", value.type);
    *line += text;
    size_t lineStart = 0;
    for (size_t at = 0; at < value.data.size(); ++at) {
        const bool last = at + 1 == value.data.size();
        std::snprintf(text, sizeof text, last ? "%02x" : "%02x,", static_cast<unsigned char>(value.data[at]));
        *line += text;
        if (last || line->size() - lineStart < kLineWidth) continue;
        *line += "\\\r\n";
        lineStart = line->size();
        *line += "  ";
    }
}

void WriteValue(const CollectedValue& value, std::string* text) {
    std::string line = value.name.empty() ? "@" : Quoted(value.name);
    line += '=';
    if (IsPlainText(value)) {
        line += Quoted({value.data.data(), value.data.size() - 1});
    } else if (value.type == REG_DWORD && value.data.size() == sizeof(DWORD)) {
        DWORD number = 0;
        std::memcpy(&number, value.data.data(), sizeof number);
        char digits[16];
        std::snprintf(digits, sizeof digits, "dword:%08x", number);
        line += digits;
    } else {
        WriteBytes(value, &line);
    }
    *text += line;
    *text += "\r\n";
}

std::string TextOfKeys(const std::vector<CollectedKey>& keys) {
    std::string text = "REGEDIT4\r\n\r\n";
    for (const CollectedKey& key : keys) {
        text += '[' + key.path + "]\r\n";
        for (const CollectedValue& value : key.values)
            WriteValue(value, &text);
        text += "\r\n";
    }
    return text;
}

} // namespace
} // namespace oriel

using namespace oriel;

LSTATUS WINAPI RegExportTextA(HKEY key, LPCSTR subKey, char* text, SIZE_T* length) {
    return CodeCall([&]() -> LSTATUS {
        if (length == nullptr) return ERROR_INVALID_PARAMETER;
        const KeyUse base(key, KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS);
        if (base.Error() != ERROR_SUCCESS) return base.Error();
        std::vector<KeyName> names;
        LSTATUS error = DivideKeyPath(TextOf(subKey), &names);
        if (error != ERROR_SUCCESS) return error;
        int64_t top = 0;
        error = LocateKey(*base, JoinKeyPath(base->path, names), &top);
        if (error != ERROR_SUCCESS) return error;
        std::vector<CollectedKey> keys;
        error = CollectTree(base->root, top, &keys);
        if (error != ERROR_SUCCESS) return error;
        const std::string whole = TextOfKeys(keys);
        const SIZE_T room = *length;
        *length = whole.size();
        if (text == nullptr) return ERROR_SUCCESS;
        if (room < whole.size()) return ERROR_MORE_DATA;
        std::memcpy(text, whole.data(), whole.size());
        return ERROR_SUCCESS;
    });
}
