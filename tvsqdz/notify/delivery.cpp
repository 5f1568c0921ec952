#include "notify/delivery.h"

#include "base/memory.h"
#include "machine/objects.h"
#include "machine/process_state.h"

void Watch::Begin(const NotificationRegistration& registration, const char* variableName, product::WatchMode mode) {
    m_registration = &registration;
    m_variable = variableName;
    m_mode = mode;
    const product::VariableSignal signal =
        mode == product::kEveryWrite ? product::VariableSignal::Updated : product::VariableSignal::Changed;
    // Before the name and the watch: when the service changes in between, the watch counts as lost.
    m_database = PrinterDatabaseOf(registration).handle;
    const DatabaseNameText database = CurrentDatabaseName(registration.thread.manager);
    m_event = CreateNamedEvent(product::VariableEventName(g_terminalServer, database.text, variableName, signal));
    WatchVariable(m_database, variableName, mode);
}

// With the handle with which it was made: a later service counts the watches of others under that name.
void Watch::End() {
    if (m_registration == nullptr) return;
    UnwatchVariable(m_database, m_variable);
    if (m_event != nullptr) CloseHandle(m_event);
}

void Watch::Renew() {
    End();
    Begin(*m_registration, m_variable, m_mode);
}

void LookForNewService(const NotificationRegistration& registration) {
    ManagerRecord* manager = registration.thread.manager;
    const DWORD now = GetTickCount();
    DWORD before = manager->serviceLookedFor;
    if (now - before < g_timings.serviceLook / 2 || !manager->serviceLookedFor.compare_exchange_strong(before, now))
        return;
    product::DatabaseInfo info;
    GetDatabaseInfo(manager->printerDatabase, &info);
}

void SignalCount::Count(HANDLE event) {
    constexpr uint32_t kSignalsCounted = 100;
    constexpr DWORD kSignalsCountedMs = 1000;
    if (++m_signals <= kSignalsCounted) return;
    m_signals = 0;
    const DWORD now = GetTickCount();
    if (now > m_lastCheck && now - m_lastCheck < kSignalsCountedMs) ResetEvent(event);
    m_lastCheck = now;
}

void Deliver(const NotificationEntry& entry) {
    if ((entry.mode & NOTIFY_BY_EVENT) != 0)
        SetEvent(reinterpret_cast<HANDLE>(entry.target));
    else
        PostMessageA(reinterpret_cast<HWND>(entry.target), entry.message, 0, 0);
}

void CallBack(const NotificationRegistration& registration, const NotificationEntry& entry, uint32_t index,
              const void* value, DWORD size) {
    const auto callback = reinterpret_cast<TvsCallback>(entry.target);
    callback(registration.callbackContext, index, entry.variableName, value, size);
}

bool ReadLastWrite(const NotificationRegistration& registration, const NotificationEntry& entry, LastWrite* write) {
    product::VariableInfo info;
    if (GetVariableInfo(PrinterDatabaseOf(registration), entry.variableName, &info) != Answer::Done) return false;
    *write = {info.writeTime, info.writes};
    return true;
}

bool IsSameWrite(const LastWrite& a, const LastWrite& b) {
    return a.count == b.count && IsNotEarlier(a.time, b.time) && IsNotEarlier(b.time, a.time);
}

bool IsNotEarlier(const SYSTEMTIME& time, const SYSTEMTIME& other) {
    constexpr WORD SYSTEMTIME::*kFields[] = {&SYSTEMTIME::wYear,        &SYSTEMTIME::wMonth,  &SYSTEMTIME::wDay,
                                             &SYSTEMTIME::wHour,        &SYSTEMTIME::wMinute, &SYSTEMTIME::wSecond,
                                             &SYSTEMTIME::wMilliseconds};
    for (const auto field : kFields)
        if (time.*field != other.*field) return time.*field > other.*field;
    return true;
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
