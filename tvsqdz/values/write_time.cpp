// Write times, for the ANSI and the wide export.
#include "values/write_time.h"

#include "base/caller_memory.h"
#include "manager/variable_lookup.h"
#include "product/guards.h"

Status GiveWriteTime(ManagerRecord* manager, const StatusVariableDef& variable, SYSTEMTIME* callersTime) {
    SYSTEMTIME writeTime;
    {
        const MutexHold lock(manager->databaseMutex);
        if (GetWriteTime(manager->printerDatabase, variable.name, &writeTime) != Answer::Done) return TVS_E_UNKNOWN;
    }
    return CopyToCaller(callersTime, &writeTime, sizeof writeTime) ? TVS_OK : TVS_E_FAULT;
}

int32_t TVS_CALL GetPrinterStatusInfoA(TvsManager manager, const char* variable, _SYSTEMTIME* writeTime) {
    return WithVariable(manager, variable, [&](ManagerRecord* record, const StatusVariableDef& found) {
        return GiveWriteTime(record, found, writeTime);
    });
}
