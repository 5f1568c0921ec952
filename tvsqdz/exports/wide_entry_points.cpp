// The wide exports: names, and values that have a wide form, are converted to the ANSI code page or from it, and the
// rest is what the ANSI forms do.
#include "base/caller_memory.h"
#include "exports/opening.h"
#include "manager/variable_lookup.h"
#include "requests/direct_access.h"
#include "values/reading.h"
#include "values/updating.h"
#include "values/wide_values.h"
#include "values/write_time.h"

namespace {

template <DWORD size>
Status ConvertName(const WCHAR* callersName, char (&name)[size]) {
    switch (ReadCallerName(name, callersName)) {
    case CallerText::Read:
        return TVS_OK;
    case CallerText::Fault:
        return TVS_E_FAULT;
    case CallerText::TooLong:
        break;
    }
    return TVS_E_UNAVAILABLE;
}

OpenNames ConvertNames(const WCHAR* printerName, const WCHAR* userName) {
    OpenNames names;
    names.printerStatus = ConvertName(printerName, names.printer);
    names.userStatus = ConvertName(userName, names.user);
    if (names.userStatus == TVS_E_FAULT) {
        names.user[0] = '\0'; // counts as absent
        names.userStatus = TVS_OK;
    }
    return names;
}

} // namespace

int32_t TVS_CALL OpenManagerW(const TvsWideChar* printerName, const TvsWideChar* userName, TvsManager* manager) {
    return OpenManager(ConvertNames(printerName, userName), 0, manager);
}

int32_t TVS_CALL OpenManagerExW(const TvsWideChar* printerName, const TvsWideChar* userName, uint32_t clientKind,
                                TvsManager* manager) {
    return OpenManager(ConvertNames(printerName, userName), clientKind, manager);
}

int32_t TVS_CALL GetPrinterStatusW(TvsManager manager, const TvsWideChar* variable, void* buffer, uint32_t size,
                                   uint32_t* returnedSize) {
    return ServeRead(manager, variable, buffer, size, returnedSize, ReadWide<ReadCurrent>);
}

int32_t TVS_CALL GetPrinterStatusDirectW(TvsManager manager, const TvsWideChar* variable, void* buffer, uint32_t size,
                                         uint32_t* returnedSize) {
    return ServeRead(manager, variable, buffer, size, returnedSize, ReadWide<ReadDirect>);
}

int32_t TVS_CALL SetPrinterStatusDirectW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                         uint32_t size) {
    return ServeWideWrite(manager, variable, data, size, WriteDirect);
}

int32_t TVS_CALL UpdatePrinterStatusW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                      uint32_t size) {
    return ServeWideWrite(manager, variable, data, size, UpdateValue);
}

int32_t TVS_CALL GetPrinterStatusInfoW(TvsManager manager, const TvsWideChar* variable, _SYSTEMTIME* writeTime) {
    return WithVariable(manager, variable, [&](ManagerRecord* record, const StatusVariableDef& found) {
        return GiveWriteTime(record, found, writeTime);
    });
}
