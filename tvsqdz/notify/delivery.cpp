#include "notify/delivery.h"

#include "frame/object_names.h"
#include "frame/process_state.h"

HANDLE BeginWatch(const NotificationRegistration& registration, const char* variableName, dblink::WatchMode mode) {
    const dblink::VariableSignal signal =
        mode == dblink::kEveryWrite ? dblink::VariableSignal::Updated : dblink::VariableSignal::Changed;
    HANDLE event =
        CreateNamedEvent(dblink::VariableEventName(g_terminalServer, registration.databaseName, variableName, signal));
    WatchVariable(registration.printerDatabase, variableName, mode);
    return event;
}

void EndWatch(const NotificationRegistration& registration, const char* variableName, HANDLE event) {
    UnwatchVariable(registration.printerDatabase, variableName);
    if (event != nullptr) CloseHandle(event);
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

bool ReadWriteTime(const NotificationRegistration& registration, const NotificationEntry& entry, SYSTEMTIME* time) {
    return GetWriteTime(registration.printerDatabase, entry.variableName, time) == Answer::Done;
}

SYSTEMTIME MillisecondAfter(SYSTEMTIME time) {
    ++time.wMilliseconds; // 1000 is still less than the next second
    return time;
}

bool IsNotEarlier(const SYSTEMTIME& time, const SYSTEMTIME& other) {
    constexpr WORD SYSTEMTIME::*kFields[] = {&SYSTEMTIME::wYear,        &SYSTEMTIME::wMonth,  &SYSTEMTIME::wDay,
                                             &SYSTEMTIME::wHour,        &SYSTEMTIME::wMinute, &SYSTEMTIME::wSecond,
                                             &SYSTEMTIME::wMilliseconds};
    for (const auto field : kFields)
        if (time.*field != other.*field) return time.*field > other.*field;
    return true;
}
