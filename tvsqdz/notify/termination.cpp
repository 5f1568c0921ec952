// "TerminateManager": asking every manager of the product to shut down, and being told of it.
//
// Whoever watches the variable, for whichever printer, waits for one named event of the machine. It stays set as long
// as somebody has it open, so that a watcher who comes later is told too. State: the event.
#include "base/timings.h"
#include "machine/object_names.h"
#include "manager/variable_handlers.h"
#include "notify/delivery.h"
#include "product/desktop_agent.h"
#include "product/guards.h"
#include "product/status.h"

#include <string.h>

namespace {

constexpr char kTerminateManager[] = "TerminateManager";
constexpr DWORD kEnded = 1;

// A window of the product's other programs, and the message that asks it to close.
struct TerminationTarget {
    const char* windowClass;
    UINT message;
};
constexpr TerminationTarget kEveryWindow = {"TVORRPWndClass", 1225};
// The first window of each class.
constexpr TerminationTarget kFirstWindow = {product::kAgentWindowClass, product::kAgentEndMessage};
constexpr TerminationTarget kFirstWindows9x[] = {{"TVORNSS95WndClass", 1026}, {"TVORPWD95WndClass", 1024}};

// The window's program decides what it does; one that stays is left alone after a while.
void AskToClose(HWND window, UINT message) {
    PostMessageA(window, message, 0, 0);
    for (DWORD poll = 0; poll < g_timings.windowClosePolls && IsWindow(window); ++poll)
        Sleep(g_timings.windowClosePoll);
}

BOOL CALLBACK AskIfListed(HWND window, LPARAM) {
    char windowClass[260];
    if (GetClassNameA(window, windowClass, sizeof windowClass) > 0 &&
        strcmp(windowClass, kEveryWindow.windowClass) == 0)
        AskToClose(window, kEveryWindow.message);
    return TRUE;
}

void AskFirst(const TerminationTarget& target) {
    if (HWND window = FindWindowA(target.windowClass, nullptr); window != nullptr) AskToClose(window, target.message);
}

void CloseProductWindows(bool isNt) {
    EnumWindows(AskIfListed, 0);
    AskFirst(kFirstWindow);
    if (isNt) return;
    for (const TerminationTarget& target : kFirstWindows9x)
        AskFirst(target);
}

void WakeWatchers() {
    const KernelHandle event(OpenEventA(EVENT_MODIFY_STATE, FALSE, ObjectName(product::kTerminationName).text));
    if (event) SetEvent(event.handle); // without it nobody watches
}

Answer Store(const ManagerDatabase& database, uint32_t value) {
    return WriteVariable(database, kTerminateManager, &value, sizeof value);
}

} // namespace

int32_t TerminateManagerWrite(ManagerRecord* manager, const void* data, uint32_t size) {
    uint32_t value = 0;
    if (size != sizeof value) return PassOn(Answer::WrongSize);
    memcpy(&value, data, sizeof value);
    WakeWatchers(); // whatever the value is
    const Status status = PassOn(Store(manager->printerDatabase, value));
    if (value == 0) return status;
    CloseProductWindows((manager->flags & OsNtAny) != 0);
    {
        const ManagerLockHold lock;
        manager->flags |= ManagerTerminating; // its close waits for the others'
    }
    Sleep(g_timings.terminationPause);
    return status;
}

// One termination, and no more: who wants to be told again registers again.
DWORD WINAPI TerminateManagerWatch(void* parameter) {
    const NotificationRegistration& registration = RegistrationOf(parameter);
    const KernelHandle terminated(CreateNamedEvent(ObjectName(product::kTerminationName)));
    ThreadHasBegun(registration.thread);
    const HANDLE handles[] = {registration.thread.stopEvent, terminated.handle};
    if (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) {
        Store(PrinterDatabaseOf(registration), 1);
        Deliver(registration.entries[0]);
    }
    return kEnded;
}
