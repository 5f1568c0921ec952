/* Calls each of the library's exports from plain C, as none of them can succeed: prints the names of those that refuse
 * it as they should. */
#include <stdio.h>

#include <tvsqdz.h>

#define REFUSED_WITH(status, function, ...)                                                                            \
    if (function(__VA_ARGS__) == (status)) puts(#function)
/* There is no manager 0; messages are the owner's to post, who is not there either. */
#define REFUSED(function, ...) REFUSED_WITH(TVS_E_HANDLE, function, 0, __VA_ARGS__)

#define BOTH(function, ...)                                                                                            \
    REFUSED(function##A, name, __VA_ARGS__);                                                                           \
    REFUSED(function##W, wide, __VA_ARGS__)

int main(void) {
    static const TvsWideChar wide[] = {'P', 0};
    static const uint32_t message = 1025;
    static const char* const name = "PageCount";
    char value[4] = {0}, time[16];
    void* const event = value;
    uint32_t size = 0;
    TvsManager opened = 0;

    REFUSED_WITH(TVS_E_HANDLE, CloseManager, 0);
    BOTH(GetPrinterStatus, value, 4, &size);
    BOTH(GetPrinterStatusDirect, value, 4, &size);
    BOTH(GetPrinterStatusInfo, (struct _SYSTEMTIME*)time);
    BOTH(GetReqPrinterStatusEvent, event);
    BOTH(GetReqPrinterStatusMsg, event, message);
    REFUSED(KillNotificationCallback, 1);
    REFUSED(KillNotificationEvent, 1);
    REFUSED_WITH(TVS_E_NO_OWNER, KillNotificationMsg, 0, 1);
    REFUSED_WITH(TVS_E_FAULT, OpenManagerA, NULL, NULL, &opened);
    REFUSED_WITH(TVS_E_UNKNOWN, OpenManagerExA, "P", NULL, TVS_KIND_HIGHEST + 1, &opened);
    REFUSED_WITH(TVS_E_UNKNOWN, OpenManagerExW, wide, NULL, TVS_KIND_HIGHEST + 1, &opened);
    REFUSED_WITH(TVS_E_FAULT, OpenManagerW, NULL, NULL, &opened);
    REFUSED(ResSetPrinterStatus, 1, (int32_t*)value);
    REFUSED(SetNotificationCallbackA, name, NULL, 0, &opened);
    REFUSED(SetNotificationCallbackExA, 1, name, NULL, &size, &opened);
    BOTH(SetNotificationEvent, event, &opened);
    REFUSED(SetNotificationEventExA, 1, name, &event, &opened);
    REFUSED(SetNotificationEventExW, 1, wide, &event, &opened);
    REFUSED_WITH(TVS_E_NO_OWNER, SetNotificationMsgA, 0, name, event, message, &opened);
    REFUSED_WITH(TVS_E_NO_OWNER, SetNotificationMsgExA, 0, 1, name, event, &message, &opened);
    REFUSED_WITH(TVS_E_NO_OWNER, SetNotificationMsgExW, 0, 1, wide, event, &message, &opened);
    REFUSED_WITH(TVS_E_NO_OWNER, SetNotificationMsgW, 0, wide, event, message, &opened);
    BOTH(SetPrinterStatusDirect, value, 4);
    BOTH(SetReqPrinterStatusEvent, value, 4, event, &size);
    BOTH(SetReqPrinterStatusMsg, value, 4, event, message, &size);
    BOTH(UpdatePrinterStatus, value, 4);
    return 0;
}
