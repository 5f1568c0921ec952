// The wide forms of the opens and of the write time: names are converted to the ANSI code page, and the rest is that of
// the ANSI forms.
#include "access/write_time.h"
#include "catalogue/variable_lookup.h"
#include "frame/caller_memory.h"
#include "frame/opening.h"

namespace {

// What of a name does not fit its field, once it is converted, is refused rather than cut: a cut name means another
// printer or another user.
template <DWORD size>
Status ConvertName(const WCHAR* callersName, char (&name)[size]) {
    WCHAR wide[size];
    switch (ReadCallerText(wide, size, callersName)) {
    case CallerText::Read:
        break;
    case CallerText::Fault:
        return TVS_E_FAULT;
    case CallerText::TooLong:
        return TVS_E_UNAVAILABLE;
    }
    // What the code page does not have becomes its default character; the flag for that says no more, and UTF-8 refuses
    // it.
    if (WideCharToMultiByte(CP_ACP, 0, wide, -1, name, size, nullptr, nullptr) != 0) return TVS_OK;
    name[0] = '\0';
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

int32_t TVS_CALL GetPrinterStatusInfoW(TvsManager manager, const TvsWideChar* variable, _SYSTEMTIME* writeTime) {
    const ManagerCall call(manager);
    if (!call) return TVS_E_HANDLE;
    const StatusVariableDef* found = nullptr;
    const Status status = FindCallersVariable(call.Manager(), variable, &found);
    return status == TVS_OK ? GiveWriteTime(call.Manager(), *found, writeTime) : status;
}
