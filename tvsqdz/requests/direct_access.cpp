// What direct reads and writes have in common: the request on the manager's path.
#include "requests/direct_access.h"

#include "requests/readiness.h"
#include "values/printer_name.h"
#include "values/user_authority.h"

bool MayWriteDirectly(const ManagerRecord* manager, const StatusVariableDef& variable) {
    return (variable.flags & SVF_WRITE_WITHOUT_AUTHORITY) != 0 ||
           (UserAuthority(manager) & TVS_AUTHORITY_DIRECT_WRITE) != 0;
}

Status AskPrinter(ManagerRecord* manager, RequestKind kind, const StatusVariableDef& variable, DWORD mutexWait) {
    const PrinterRequest request = RequestOf(manager, kind, variable.name);
    if (!UsesForwardedPath(manager)) return AskPrinterSide(request, mutexWait, INFINITE);
    if (const Status status = PostForwardedRequest(request); status != TVS_OK) return status;
    if (!SpoolerIsReady(manager->printerDatabase)) return TVS_E_NOT_READY;
    return ForwardPostedRequest(request, RefreshedPrinterName(manager).text);
}
