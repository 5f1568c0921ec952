// The value that a callback is given: read by its watcher, good for the duration of the call.
#pragma once

#include "notify/registration_record.h"

#include <windows.h>

class CallbackValue {
public:
    // grows: a value that does not fit is read again with as much room as it needs.
    explicit CallbackValue(bool grows) : m_grows(grows) {}
    ~CallbackValue();
    CallbackValue(const CallbackValue&) = delete;
    CallbackValue& operator=(const CallbackValue&) = delete;

    // The value as the database stores it. Null and *size 0 when it cannot be had, or is larger than its variable's
    // fixed size and may not grow: the callback then learns of the write, and of no bytes that are not the value.
    const BYTE* Read(const NotificationRegistration& registration, const NotificationEntry& entry, DWORD* size);

private:
    static constexpr DWORD kFixedMax = 320; // "PrintingJobInfo2", the largest that is watched on its own

    const BYTE* ReadGrowing(const ManagerDatabase& database, const char* name, DWORD* size);
    void Resize(DWORD capacity);

    bool m_grows;
    BYTE* m_block = nullptr; // of the heap; made when the first value needs it
    DWORD m_capacity = 0;
    alignas(8) BYTE m_fixed[kFixedMax];
};
