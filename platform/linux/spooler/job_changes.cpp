// Change notifications of the spooler, as the events that they are. No state.
#include "spooler/job_changes.h"

#include "base/call.h"
#include "spooler/printer_object.h"

#include <handleapi.h>
#include <securitybaseapi.h>
#include <string>
#include <synchapi.h>
#include <winspool.h>

namespace oriel {
namespace {

std::string EventName(int64_t printer) {
    return "OrielJobs:" + std::to_string(printer);
}

// Every user spools, and tells of it.
HANDLE CreateJobsEvent(int64_t printer) {
    SECURITY_DESCRIPTOR everyone{};
    SECURITY_ATTRIBUTES attributes{sizeof attributes, &everyone, FALSE};
    if (!InitializeSecurityDescriptor(&everyone, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(&everyone, TRUE, nullptr, FALSE))
        return nullptr;
    return CreateEventA(&attributes, TRUE, FALSE, EventName(printer).c_str());
}

} // namespace

void TellOfJobs(int64_t printer) {
    const DWORD lastError = GetLastError();
    if (const HANDLE event = OpenEventA(EVENT_MODIFY_STATE, FALSE, EventName(printer).c_str())) {
        SetEvent(event);
        CloseHandle(event);
    }
    SetLastError(lastError);
}

} // namespace oriel

using namespace oriel;

HANDLE WINAPI FindFirstPrinterChangeNotification(HANDLE printer, DWORD filter, DWORD options, LPVOID notifyOptions) {
    HANDLE event = nullptr;
    const DWORD error = CodeCall([&]() -> DWORD {
        const HandleUse<PrinterObject> open(printer, kPrinterType, PRINTER_ACCESS_USE);
        if (!open) return GetLastError();
        if (filter != PRINTER_CHANGE_JOB || options != 0 || notifyOptions != nullptr) return ERROR_INVALID_PARAMETER;
        if (open->backEnd != &kEmbeddedSpool) return ERROR_NOT_SUPPORTED;
        event = CreateJobsEvent(open->key.id);
        return event != nullptr ? ERROR_SUCCESS : GetLastError();
    });
    return Succeeds(error) ? event : INVALID_HANDLE_VALUE;
}

BOOL WINAPI FindNextPrinterChangeNotification(HANDLE notification, LPDWORD change, LPVOID notifyOptions, LPVOID* info) {
    if (notifyOptions != nullptr || info != nullptr) return Succeeds(ERROR_INVALID_PARAMETER);
    if (!ResetEvent(notification)) return FALSE;
    if (change != nullptr) *change = PRINTER_CHANGE_JOB;
    return TRUE;
}

BOOL WINAPI FindClosePrinterChangeNotification(HANDLE notification) {
    return CloseHandle(notification);
}
