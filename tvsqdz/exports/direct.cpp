// GetPrinterStatusDirectA and W, SetPrinterStatusDirectA and W. No state.
#include "requests/direct.h"
#include "manager/variable_index.h"
#include "values/wide_values.h"

int32_t TVS_CALL GetPrinterStatusDirectA(TvsManager manager, const char* variable, void* buffer, uint32_t size,
                                         uint32_t* returnedSize) {
    return ServeRead(manager, variable, buffer, size, returnedSize, ReadDirect);
}

int32_t TVS_CALL GetPrinterStatusDirectW(TvsManager manager, const TvsWideChar* variable, void* buffer, uint32_t size,
                                         uint32_t* returnedSize) {
    return ServeRead(manager, variable, buffer, size, returnedSize, ReadWide<ReadDirect>);
}

int32_t TVS_CALL SetPrinterStatusDirectA(TvsManager manager, const char* variable, const void* data, uint32_t size) {
    return WithVariable(manager, variable, [&](ManagerRecord* record, const StatusVariableDef& found) {
        return WriteDirect(record, found, data, size);
    });
}

int32_t TVS_CALL SetPrinterStatusDirectW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                         uint32_t size) {
    return ServeWideWrite(manager, variable, data, size, WriteDirect);
}
