// UpdatePrinterStatusA and W. No state.
#include "values/updating.h"
#include "manager/variable_index.h"
#include "values/wide_values.h"

int32_t TVS_CALL UpdatePrinterStatusA(TvsManager manager, const char* variable, const void* data, uint32_t size) {
    return WithVariable(manager, variable, [&](ManagerRecord* record, const StatusVariableDef& found) {
        return UpdateValue(record, found, data, size);
    });
}

int32_t TVS_CALL UpdatePrinterStatusW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                      uint32_t size) {
    return ServeWideWrite(manager, variable, data, size, UpdateValue);
}
