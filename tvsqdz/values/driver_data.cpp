// The registry side of persistent variables. Failures never reach a status: a missing key or value is an absent copy,
// and a failed write leaves the old one.
#include "values/driver_data.h"

#include "base/heap.h"
#include "manager/printer_registration.h"
#include "product/guards.h"
#include "product/interface.h"

#include <stdio.h>
#include <string.h>

namespace {

constexpr char kDriverDataKey[] = "PrinterDriverData";

struct ValueName {
    explicit ValueName(const StatusVariableDef& variable) { snprintf(text, sizeof text, "SQD_%s", variable.name); }
    char text[sizeof "SQD_" + product::kVariableNameMax];
};

bool OpenDriverData(const char* printerName, REGSAM parentAccess, REGSAM access, RegistryKey& key) {
    return key.Open(HKEY_LOCAL_MACHINE, kPrintersKey, parentAccess) == ERROR_SUCCESS &&
           key.Open(key.key, DriverDataKeyName(printerName).name, parentAccess) == ERROR_SUCCESS &&
           key.Open(key.key, kDriverDataKey, access) == ERROR_SUCCESS;
}

bool HasLengthFirst(const StatusVariableDef& variable) {
    return (variable.flags & SVT_VARIABLE) != 0;
}

struct StoredForm {
    DWORD registryType;
    DWORD size;
};

// False for a type that has no copy, and for data that is shorter than its number.
bool StoredFormOf(const StatusVariableDef& variable, DWORD size, StoredForm* form) {
    const uint32_t flags = variable.flags;
    if ((flags & SVT_NUMBER) != 0)
        *form = {REG_DWORD, size};
    else if ((flags & (SVT_RECORD | SVT_VARIABLE)) != 0)
        *form = {REG_BINARY, size};
    else if ((flags & SVT_STRING) != 0)
        *form = {REG_SZ, size};
    else if ((flags & SVT_WORD) != 0)
        *form = {REG_DWORD, sizeof(WORD)};
    else if ((flags & SVT_BYTE) != 0)
        *form = {REG_DWORD, sizeof(BYTE)};
    else
        return false;
    return form->size <= size;
}

bool HoldsAlready(HKEY key, const char* valueName, const void* data, DWORD size) {
    Scratch present(size);
    if (present.Data() == nullptr) return false;
    DWORD presentSize = size;
    return RegQueryValueExA(key, valueName, nullptr, nullptr, present.Data(), &presentSize) == ERROR_SUCCESS &&
           presentSize == size && memcmp(present.Data(), data, size) == 0;
}

} // namespace

DWORD ReadDriverDataValue(const char* printerName, const StatusVariableDef& variable, void* buffer, DWORD capacity) {
    RegistryKey key;
    if (!OpenDriverData(printerName, KEY_READ, KEY_READ, key)) return 0;
    const ValueName name(variable);
    const DWORD lengthSize = HasLengthFirst(variable) ? sizeof(DWORD) : 0;
    DWORD size = 0;
    if (buffer == nullptr) {
        if (RegQueryValueExA(key.key, name.text, nullptr, nullptr, nullptr, &size) != ERROR_SUCCESS) return 0;
        return size + lengthSize;
    }
    if (capacity < lengthSize) return 0;
    size = capacity - lengthSize;
    BYTE* payload = static_cast<BYTE*>(buffer) + lengthSize;
    if (RegQueryValueExA(key.key, name.text, nullptr, nullptr, payload, &size) != ERROR_SUCCESS) return 0;
    if (lengthSize > 0) memcpy(buffer, &size, lengthSize);
    return size + lengthSize;
}

bool WriteDriverDataValue(const char* printerName, const StatusVariableDef& variable, const void* data, DWORD size) {
    RegistryKey key;
    if (!OpenDriverData(printerName, KEY_WRITE, KEY_WRITE | KEY_QUERY_VALUE, key)) return false;
    StoredForm form;
    if (!StoredFormOf(variable, size, &form)) return false;
    const ValueName name(variable);
    if (HoldsAlready(key.key, name.text, data, form.size)) return true;
    return RegSetValueExA(key.key, name.text, 0, form.registryType, static_cast<const BYTE*>(data), form.size) ==
           ERROR_SUCCESS;
}
