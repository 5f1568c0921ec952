// The wide exports of asynchronous requests.
#include "exports/wide_names.h"
#include "values/wide_values.h"

namespace {

// The caller's number is 0 whatever fails, also before the ANSI form is reached.
template <typename AnsiForm> // Status(const char* name, const void* data, uint32_t size)
Status StartWrite(TvsManager manager, const WCHAR* callersVariable, const void* value, uint32_t size,
                  uint32_t* requestId, AnsiForm ansiForm) {
    const uint32_t none = 0;
    if (!CopyToCaller(requestId, &none, sizeof none)) return TVS_E_FAULT;
    const auto write = [&](ManagerRecord*, const StatusVariableDef& variable, const void* data, uint32_t dataSize) {
        return ansiForm(variable.name, data, dataSize);
    };
    return ServeWideWrite(manager, callersVariable, value, size, write);
}

} // namespace

int32_t TVS_CALL GetReqPrinterStatusEventW(TvsManager manager, const TvsWideChar* variable, void* event) {
    return WithName(manager, variable,
                    [&](const char* name) { return GetReqPrinterStatusEventA(manager, name, event); });
}

int32_t TVS_CALL GetReqPrinterStatusMsgW(TvsManager manager, const TvsWideChar* variable, void* window,
                                         uint32_t message) {
    return WithName(manager, variable,
                    [&](const char* name) { return GetReqPrinterStatusMsgA(manager, name, window, message); });
}

int32_t TVS_CALL SetReqPrinterStatusEventW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                           uint32_t size, void* event, uint32_t* requestId) {
    const auto ansiForm = [&](const char* name, const void* value, uint32_t valueSize) {
        return SetReqPrinterStatusEventA(manager, name, value, valueSize, event, requestId);
    };
    return StartWrite(manager, variable, data, size, requestId, ansiForm);
}

int32_t TVS_CALL SetReqPrinterStatusMsgW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                         uint32_t size, void* window, uint32_t message, uint32_t* requestId) {
    const auto ansiForm = [&](const char* name, const void* value, uint32_t valueSize) {
        return SetReqPrinterStatusMsgA(manager, name, value, valueSize, window, message, requestId);
    };
    return StartWrite(manager, variable, data, size, requestId, ansiForm);
}
