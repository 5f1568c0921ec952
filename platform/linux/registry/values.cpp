// The calls on values.
#include "base/call.h"
#include "registry/changes.h"
#include "registry/keys.h"

using namespace oriel;

LSTATUS WINAPI RegQueryValueExA(HKEY key, LPCSTR valueName, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
    return CodeCall([&]() -> LSTATUS {
        if (reserved != nullptr || (data != nullptr && size == nullptr)) return ERROR_INVALID_PARAMETER;
        const KeyUse open(key, KEY_QUERY_VALUE);
        if (open.Error() != ERROR_SUCCESS) return open.Error();
        const std::string folded = FoldName(TextOf(valueName));
        DatabaseHold hold(StoreOf(open->root), DatabaseUse::kLook);
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
        DatabaseHold hold(StoreOf(open->root), DatabaseUse::kChange);
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
        DatabaseHold hold(StoreOf(open->root), DatabaseUse::kChange);
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
        DatabaseHold hold(StoreOf(open->root), DatabaseUse::kLook);
        Query row(hold, kEnumValue);
        if (!row.Bind(open->id).Bind(int64_t{index}).Next()) return NothingFound(hold, *open, ERROR_NO_MORE_ITEMS);
        if (type != nullptr) *type = static_cast<DWORD>(row.Number(1));
        const LSTATUS error = CopyData(row.Bytes(2), data, size);
        return error == ERROR_SUCCESS ? CopyName(row.Bytes(0), valueName, nameSize) : error;
    });
}
