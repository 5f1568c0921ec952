#include "notify/delivery.h"

#include "base/memory.h"

void Deliver(const NotificationEntry& entry) {
    if ((entry.mode & NOTIFY_BY_EVENT) != 0)
        SetEvent(reinterpret_cast<HANDLE>(entry.target));
    else
        PostMessageA(reinterpret_cast<HWND>(entry.target), entry.message, 0, 0);
}

void CallBackWithValue(const NotificationRegistration& registration, const NotificationEntry& entry, uint32_t index,
                       CallbackValue& value) {
    const auto callback = reinterpret_cast<TvsCallback>(entry.target);
    DWORD size = 0;
    const BYTE* bytes = entry.withoutValue != 0 ? nullptr : value.Read(registration, entry, &size);
    callback(registration.callbackContext, index, entry.variableName, bytes, size);
}

namespace {

constexpr DWORD kFirstCapacity = 16384;

// The size that the service returns is not trusted beyond the buffer.
bool ReadInto(void* buffer, DWORD capacity, const ManagerDatabase& database, const char* name, DWORD* size) {
    return ReadVariable(database, name, buffer, capacity, size) == Answer::Done && *size <= capacity;
}

} // namespace

CallbackValue::~CallbackValue() {
    FreeBlock(m_block);
}

void CallbackValue::Resize(DWORD capacity) {
    FreeBlock(m_block);
    m_block = static_cast<BYTE*>(AllocateZeroed(capacity));
    m_capacity = m_block != nullptr ? capacity : 0;
}

const BYTE* CallbackValue::ReadGrowing(const ManagerDatabase& database, const char* name, DWORD* size) {
    if (m_block == nullptr) Resize(kFirstCapacity);
    if (m_block != nullptr && ReadInto(m_block, m_capacity, database, name, size)) return m_block;
    DWORD needed = 0;
    if (ReadVariable(database, name, nullptr, 0, &needed) == Answer::Done && needed > m_capacity) {
        Resize(needed);
        if (m_block != nullptr && ReadInto(m_block, m_capacity, database, name, size)) return m_block;
    }
    *size = 0;
    return nullptr;
}

const BYTE* CallbackValue::Read(const NotificationRegistration& registration, const NotificationEntry& entry,
                                DWORD* size) {
    const ManagerDatabase& database = PrinterDatabaseOf(registration);
    // A reply has the length of the buffer, so a value of known size is asked for with that size.
    if (entry.valueSize != 0 && entry.valueSize <= sizeof m_fixed &&
        ReadInto(m_fixed, entry.valueSize, database, entry.variableName, size))
        return m_fixed;
    if (m_grows) return ReadGrowing(database, entry.variableName, size);
    *size = 0;
    return nullptr;
}
