// Updates and driver-data copies. No state.
#include "values/updating.h"

#include "base/memory.h"
#include "manager/printer_registration.h"
#include "manager/variable_index.h"
#include "product/client.h"
#include "product/guards.h"
#include "product/interface.h"
#include "values/port_and_name.h"

#include <stdio.h>
#include <string.h>

namespace {

Status Store(ManagerRecord* manager, const StatusVariableDef& variable, CallerValue& value) {
    if (variable.localWrite != nullptr) return variable.localWrite(manager, value.Data(), value.Size());
    // Readers of a variable-length value ask for its size first; it must not change in between.
    DatabaseLock lock;
    switch (TypeOf(variable)) {
    case SVT_VARIABLE:
        if (!lock.Acquire(*manager)) return TVS_E_NOT_READY;
        break;
    case SVT_STRING:
        if (value.Size() > 0) value.Data()[value.Size() - 1] = '\0';
        break;
    default:
        break;
    }
    const CallerValue::Bytes stored = value.Stored(TypeOf(variable) == SVT_VARIABLE);
    return PassOn(WriteVariable(manager->printerDatabase, variable.name, stored.data, stored.size));
}

} // namespace

Status UpdateValue(ManagerRecord* manager, const StatusVariableDef& variable, const void* data, uint32_t size) {
    CallerValue value(data, size);
    if (value.Result() != TVS_OK) return value.Result();
    const Status status = Store(manager, variable, value);
    // The driver data are stored under the current name of the printer, which another process may have changed.
    if ((variable.flags & SVF_PERSISTENT) != 0)
        WriteDriverDataValue(RefreshedPrinterName(manager).text, variable, value.Data(), value.Size());
    return status;
}

// Copied once, so that the bytes that are checked are the bytes that are written.

namespace {

constexpr uint32_t kLengthSize = sizeof(uint32_t);
constexpr uint32_t kTerminatorSize = 1;

bool IsTooLarge(uint32_t size) {
    return size > product::kValueSizeMax;
}

} // namespace

CallerValue::CallerValue(const void* data, uint32_t size)
    : m_size(IsTooLarge(size) ? 0 : size), m_block(SIZE_T{kLengthSize} + m_size + kTerminatorSize), m_result(TVS_OK) {
    if (IsTooLarge(size))
        m_result = PassOn(Answer::WrongSize);
    else if (m_block.Data() == nullptr)
        m_result = TVS_E_MEMORY;
    else if (!CopyFromCaller(Data(), data, size))
        m_result = TVS_E_FAULT;
}

CallerValue::Bytes CallerValue::Stored(bool withLength) {
    if (!withLength) return {Data(), m_size};
    memcpy(m_block.Data(), &m_size, kLengthSize);
    return {m_block.Data(), m_size + kLengthSize};
}

CallerValue::Bytes CallerValue::Text() {
    const SIZE_T length = strnlen(reinterpret_cast<const char*>(Data()), m_size);
    return {Data(), static_cast<uint32_t>(length) + kTerminatorSize};
}

// Driver data. Failures do not become a status: a missing key or value means no copy, and a failed write leaves the old
// one.

namespace {

constexpr char kDriverDataKey[] = "PrinterDriverData";

struct ValueName {
    explicit ValueName(const StatusVariableDef& variable) { snprintf(text, sizeof text, "SQD_%s", variable.name); }
    char text[sizeof "SQD_" + product::kVariableNameMax];
};

RegistryKey OpenDriverData(const char* printerName, REGSAM parentAccess, REGSAM access) {
    const RegistryKey printers = OpenKey(HKEY_LOCAL_MACHINE, kPrintersKey, parentAccess);
    if (!printers) return {};
    const RegistryKey printer = OpenKey(printers.Get(), PrinterKeyName(printerName).name, parentAccess);
    return printer ? OpenKey(printer.Get(), kDriverDataKey, access) : RegistryKey();
}

bool HasLengthFirst(const StatusVariableDef& variable) {
    return (variable.flags & SVT_VARIABLE) != 0;
}

struct StoredForm {
    DWORD registryType;
    DWORD size;
};

// False for a type that has no copy, and for data shorter than its number.
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
    const RegistryKey key = OpenDriverData(printerName, KEY_READ, KEY_READ);
    if (!key) return 0;
    const ValueName name(variable);
    const DWORD lengthSize = HasLengthFirst(variable) ? sizeof(DWORD) : 0;
    DWORD size = 0;
    if (buffer == nullptr) {
        if (RegQueryValueExA(key.Get(), name.text, nullptr, nullptr, nullptr, &size) != ERROR_SUCCESS) return 0;
        return size + lengthSize;
    }
    if (capacity < lengthSize) return 0;
    size = capacity - lengthSize;
    BYTE* payload = static_cast<BYTE*>(buffer) + lengthSize;
    if (RegQueryValueExA(key.Get(), name.text, nullptr, nullptr, payload, &size) != ERROR_SUCCESS) return 0;
    if (lengthSize > 0) memcpy(buffer, &size, lengthSize);
    return size + lengthSize;
}

bool WriteDriverDataValue(const char* printerName, const StatusVariableDef& variable, const void* data, DWORD size) {
    const RegistryKey key = OpenDriverData(printerName, KEY_WRITE, KEY_WRITE | KEY_QUERY_VALUE);
    if (!key) return false;
    StoredForm form;
    if (!StoredFormOf(variable, size, &form)) return false;
    const ValueName name(variable);
    if (HoldsAlready(key.Get(), name.text, data, form.size)) return true;
    return RegSetValueExA(key.Get(), name.text, 0, form.registryType, static_cast<const BYTE*>(data), form.size) ==
           ERROR_SUCCESS;
}
