// Calls each export of the library, with a printer that is there, and ends with 0 whatever the calls answer: what may
// not happen is that they crash or hang. The printer's name is the argument.
#include <tvsqdz.h>
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr UINT kMessage = WM_APP + 1;

void TVS_CALL OnCall(TvsManager, uint32_t, const char*, const void*, uint32_t) {}

void Read(TvsManager manager) {
    char bytes[512];
    uint32_t returned = 0;
    SYSTEMTIME time;
    for (const char* name :
         {"PageCount", "PrinterName", "PrinterQueue", "CurrentStatus", "UserAuthority", "PrintingMyJob"}) {
        GetPrinterStatusA(manager, name, nullptr, 0, &returned);
        GetPrinterStatusA(manager, name, bytes, sizeof bytes, &returned);
        GetPrinterStatusInfoA(manager, name, &time);
    }
    GetPrinterStatusW(manager, u"PrinterModel", bytes, sizeof bytes, &returned);
    GetPrinterStatusInfoW(manager, u"PrinterModel", &time);
    GetPrinterStatusDirectA(manager, "PageCount", bytes, sizeof bytes, &returned);
    GetPrinterStatusDirectW(manager, u"PageCount", bytes, sizeof bytes, &returned);
}

void Write(TvsManager manager) {
    const uint32_t number = 7;
    UpdatePrinterStatusA(manager, "PageCount", &number, sizeof number);
    UpdatePrinterStatusW(manager, u"JobStatus", &number, sizeof number);
    UpdatePrinterStatusA(manager, "PrinterBinConfig", "12345678", 8);
    UpdatePrinterStatusA(manager, "SetJob", &number, sizeof number);
    SetPrinterStatusDirectA(manager, "PrinterDisplay", &number, sizeof number);
    SetPrinterStatusDirectW(manager, u"RefreshStatus", u"all", 8);
}

void Request(TvsManager manager, HANDLE event, HWND window) {
    const uint32_t number = 7;
    uint32_t id = 0;
    int32_t result = 0;
    GetReqPrinterStatusEventA(manager, "PageCount", event);
    GetReqPrinterStatusEventW(manager, u"PageCount", event);
    GetReqPrinterStatusMsgA(manager, "PageCount", window, kMessage);
    GetReqPrinterStatusMsgW(manager, u"PageCount", window, kMessage);
    SetReqPrinterStatusEventA(manager, "PrinterDisplay", &number, sizeof number, event, &id);
    SetReqPrinterStatusEventW(manager, u"PrinterDisplay", &number, sizeof number, event, &id);
    SetReqPrinterStatusMsgA(manager, "PrinterDisplay", &number, sizeof number, window, kMessage, &id);
    SetReqPrinterStatusMsgW(manager, u"PrinterDisplay", &number, sizeof number, window, kMessage, &id);
    ResSetPrinterStatus(manager, id, &result);
}

void Register(TvsManager manager, HANDLE event, HWND window) {
    TvsRegistration made[10] = {};
    const HANDLE events[] = {event, nullptr};
    const uint32_t messages[] = {kMessage, kMessage + 1};
    const TvsCallback callbacks[] = {OnCall, OnCall};
    const uint32_t without[] = {0, 1};
    SetNotificationEventA(manager, "PageCount", event, &made[0]);
    SetNotificationEventW(manager, u"PageCount", event, &made[1]);
    SetNotificationEventExA(manager, 2, "PageCount;PrinterStatus;", events, &made[2]);
    SetNotificationEventExW(manager, 2, u"PageCount;PrinterStatus;", events, &made[3]);
    SetNotificationMsgA(manager, "PageCount", window, kMessage, &made[4]);
    SetNotificationMsgW(manager, u"PageCount", window, kMessage, &made[5]);
    SetNotificationMsgExA(manager, 2, "PageCount;PrinterStatus;", window, messages, &made[6]);
    SetNotificationMsgExW(manager, 2, u"PageCount;PrinterStatus;", window, messages, &made[7]);
    SetNotificationCallbackA(manager, "UserAuthority", OnCall, 0, &made[8]);
    SetNotificationCallbackExA(manager, 2, "PageCount;PrinterStatus;", callbacks, without, &made[9]);
    const uint32_t number = 8;
    UpdatePrinterStatusA(manager, "PageCount", &number, sizeof number);
    for (int i = 0; i < 10; ++i) {
        if (i < 4)
            KillNotificationEvent(manager, made[i]);
        else if (i < 8)
            KillNotificationMsg(manager, made[i]);
        else
            KillNotificationCallback(manager, made[i]);
    }
}

} // namespace

int main(int, char** arguments) {
    const char* printer = arguments[1];
    char16_t wide[64] = {}; // not on the heap: what fails is the library's
    std::copy_n(printer, std::min(std::strlen(printer), std::size(wide) - 1), wide);
    TvsManager managers[4] = {};
    OpenManagerA(printer, nullptr, &managers[0]);
    OpenManagerW(wide, nullptr, &managers[1]);
    OpenManagerExA(printer, "\\\\.\\kptmon", TVS_KIND_OWNER, &managers[2]);
    OpenManagerExW(wide, nullptr, TVS_KIND_POLLING, &managers[3]);
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    WNDCLASSEXA windowClass = {};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpszClassName = "Every export";
    windowClass.lpfnWndProc = DefWindowProcA;
    RegisterClassExA(&windowClass);
    const HWND window =
        CreateWindowExA(0, windowClass.lpszClassName, "", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    for (const TvsManager manager : {managers[2], managers[3]}) {
        Read(manager);
        Write(manager);
        Request(manager, event, window);
        Register(manager, event, window);
    }
    for (const TvsManager manager : managers)
        CloseManager(manager);
    return 0;
}
