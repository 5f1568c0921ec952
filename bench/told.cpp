// Notification from one process to others. bench_told FORM PRINTER WATCHERS (see told.h)
//
//   event      SetNotificationEventA; the main thread waits for the event, then reads the value
//   message    SetNotificationMsgA; the main thread takes the message from its queue, then reads the value
//   callback   SetNotificationCallbackA with value
//
// State: the role, for the callback.
#include <tvsqdz.h>
#include <windows.h>

#include "told.h"

namespace {

constexpr char kVariable[] = "JobStatus";
constexpr uint32_t kClientKind = 3; // needs no initialised product and starts nothing

const WatcherRole* g_role = nullptr;

void Expect(int32_t status, const char* what) {
    if (status == TVS_OK) return;
    std::fprintf(stderr, "%s: status %d\n", what, status);
    std::exit(1);
}

TvsManager Open(const char* printer) {
    TvsManager manager = 0;
    Expect(OpenManagerExA(printer, "bench", kClientKind, &manager), printer);
    return manager;
}

void TellValue(TvsManager manager) {
    uint32_t value = 0;
    uint32_t size = 0;
    Expect(GetPrinterStatusA(manager, kVariable, &value, sizeof value, &size), kVariable);
    g_role->Tell(value);
}

void TVS_CALL OnCall(TvsManager, uint32_t, const char*, const void* value, uint32_t size) {
    uint32_t number = 0;
    if (size != sizeof number) return;
    std::memcpy(&number, value, sizeof number);
    g_role->Tell(number);
}

void WatchByEvent(TvsManager manager) {
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    TvsRegistration registration = 0;
    Expect(SetNotificationEventA(manager, kVariable, event, &registration), "SetNotificationEventA");
    g_role->Ready();
    while (WaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0)
        TellValue(manager);
}

void WatchByMessage(TvsManager manager) {
    WNDCLASSEXA windowClass{};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = &DefWindowProcA;
    windowClass.lpszClassName = "Bench";
    RegisterClassExA(&windowClass);
    const HWND window = CreateWindowExA(0, "Bench", "", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    TvsRegistration registration = 0;
    Expect(SetNotificationMsgA(manager, kVariable, window, WM_APP, &registration), "SetNotificationMsgA");
    g_role->Ready();
    for (MSG message; GetMessageA(&message, window, 0, 0) > 0;)
        TellValue(manager);
}

void WatchByCallback(TvsManager manager) {
    TvsRegistration registration = 0;
    Expect(SetNotificationCallbackA(manager, kVariable, &OnCall, 0, &registration), "SetNotificationCallbackA");
    g_role->Ready();
    for (;;)
        pause();
}

} // namespace

int main(int argc, char** argv) {
    const WatcherRole role(argc, argv);
    const std::string form = argc == 4 ? argv[1] : "";
    if (form != "event" && form != "message" && form != "callback") {
        std::fprintf(stderr, "usage: bench_told event|message|callback PRINTER WATCHERS\n");
        return 2;
    }
    const TvsManager manager = Open(argv[2]);
    if (role.board == nullptr)
        return Watchers(argc, argv, std::atoi(argv[3])).Serve([manager](uint32_t number) {
            return UpdatePrinterStatusA(manager, kVariable, &number, sizeof number) == TVS_OK;
        });
    g_role = &role;
    if (form == "event") WatchByEvent(manager);
    if (form == "message") WatchByMessage(manager);
    if (form == "callback") WatchByCallback(manager);
    return 1;
}
