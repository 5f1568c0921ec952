#include "notify/callback_value.h"

#include "base/heap.h"

namespace {

constexpr DWORD kFirstCapacity = 16384;

// The service's word for a size is believed only as far as the buffer goes.
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
    // A reply is as long as the buffer, so a value of known size is asked for with that.
    if (entry.valueSize != 0 && entry.valueSize <= sizeof m_fixed &&
        ReadInto(m_fixed, entry.valueSize, database, entry.variableName, size))
        return m_fixed;
    if (m_grows) return ReadGrowing(database, entry.variableName, size);
    *size = 0;
    return nullptr;
}
