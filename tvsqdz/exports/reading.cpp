// GetPrinterStatusA and W, GetPrinterStatusInfoA and W. No state.
#include "values/reading.h"
#include "manager/variable_index.h"
#include "values/wide_values.h"

int32_t TVS_CALL GetPrinterStatusA(TvsManager manager, const char* variable, void* buffer, uint32_t size,
                                   uint32_t* returnedSize) {
    return ServeRead(manager, variable, buffer, size, returnedSize, ReadCurrent);
}

int32_t TVS_CALL GetPrinterStatusW(TvsManager manager, const TvsWideChar* variable, void* buffer, uint32_t size,
                                   uint32_t* returnedSize) {
    return ServeRead(manager, variable, buffer, size, returnedSize, ReadWide<ReadCurrent>);
}

int32_t TVS_CALL GetPrinterStatusInfoA(TvsManager manager, const char* variable, _SYSTEMTIME* writeTime) {
    return WithVariable(manager, variable, [&](ManagerRecord* record, const StatusVariableDef& found) {
        return GiveWriteTime(record, found, writeTime);
    });
}

int32_t TVS_CALL GetPrinterStatusInfoW(TvsManager manager, const TvsWideChar* variable, _SYSTEMTIME* writeTime) {
    return WithVariable(manager, variable, [&](ManagerRecord* record, const StatusVariableDef& found) {
        return GiveWriteTime(record, found, writeTime);
    });
}
