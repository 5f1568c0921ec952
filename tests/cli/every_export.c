/* Calls each of the library's exports against the running product, as a plain C program does.
 *
 *     every_export PRINTER NUMBER
 *
 * NUMBER names a variable that the printer can be asked for and told. Prints the name of each function whose call did
 * what it is to do, in the order of the calls; what did not goes to standard error, and the exit code is 1. */
#include <stdio.h>
#include <string.h>

#include <tvsqdz.h>
#include <windows.h>

#if defined(_WIN32)
#define WIDE(text) L##text
#else
#define WIDE(text) u##text
#endif

#define WAIT_MS 20000u
#define FIRST_MESSAGE (WM_APP + 1)
/* The product's own port monitor may do everything, whatever the printer's access control list says. */
#define USER "\\\\.\\kptmon"

static int g_failures;

static int check(int good, const char* what, int line) {
    if (good) return 1;
    fprintf(stderr, "line %d: %s\n", line, what);
    ++g_failures;
    return 0;
}
#define CHECK(condition) check((condition), #condition, __LINE__)
/* A call of an export that must answer `wanted`, and a condition that must hold afterwards. */
#define CALL(function, arguments, wanted, condition)                                                                   \
    do {                                                                                                               \
        int32_t status_ = function arguments;                                                                          \
        if (status_ != (wanted)) fprintf(stderr, #function ": status %d\n", (int)status_);                             \
        if (CHECK(status_ == (wanted)) && CHECK(condition)) puts(#function);                                           \
    } while (0)

/* The window of the desktop agent, which an open of kind 0 would otherwise start. */
#define WINDOW_CLASS "TVORPSPWndClass"

static HANDLE g_event;
static HWND g_window;

static int event_was_set(void) {
    return WaitForSingleObject(g_event, WAIT_MS) == WAIT_OBJECT_0;
}

/* The message came, with both parameters 0. */
static int was_posted(UINT message) {
    DWORD begun = GetTickCount();
    MSG taken;

    while (GetTickCount() - begun < WAIT_MS) {
        if (PeekMessageA(&taken, g_window, message, message, PM_REMOVE)) return taken.wParam == 0 && taken.lParam == 0;
        Sleep(1);
    }
    return 0;
}

/* What the callbacks were told last. */
static TvsManager g_called_for;
static uint32_t g_called_index, g_called_value;
static HANDLE g_called;

static void TVS_CALL on_change(TvsManager manager, uint32_t index, const char* variable, const void* value,
                               uint32_t size) {
    uint32_t number = 0;

    if (value != NULL && size == sizeof number) memcpy(&number, value, sizeof number);
    g_called_for = manager;
    g_called_index = strcmp(variable, "ClientStatus") == 0 ? index : 99;
    g_called_value = number;
    SetEvent(g_called);
}

static int was_called(TvsManager manager, uint32_t index, uint32_t value) {
    return WaitForSingleObject(g_called, WAIT_MS) == WAIT_OBJECT_0 && g_called_for == manager &&
           g_called_index == index && g_called_value == value;
}

/* Writes another value than before of the variable that is watched. */
static uint32_t change(TvsManager manager) {
    static uint32_t value = 100;

    ++value;
    CHECK(UpdatePrinterStatusA(manager, "ClientStatus", &value, sizeof value) == TVS_OK);
    return value;
}

static uint32_t number_of(TvsManager manager, const char* variable) {
    uint32_t value = 0xEEEEEEEE, size = 0;

    CHECK(GetPrinterStatusA(manager, variable, &value, sizeof value, &size) == TVS_OK && size == sizeof value);
    return value;
}

static void values(TvsManager manager, const char* number, const TvsWideChar* wide_number) {
    static const TvsWideChar place[] = WIDE("2nd floor");
    TvsWideChar wide[260];
    char text[260];
    uint32_t size = 0, value = 0;
    SYSTEMTIME time = {0}, wide_time = {0};

    CALL(UpdatePrinterStatusA, (manager, "PrinterLocation", "cellar", 7), TVS_OK, 1);
    CALL(GetPrinterStatusA, (manager, "PrinterLocation", text, sizeof text, &size), TVS_OK,
         size == 7 && strcmp(text, "cellar") == 0);
    CALL(UpdatePrinterStatusW, (manager, WIDE("PrinterLocation"), place, sizeof place), TVS_OK,
         GetPrinterStatusA(manager, "PrinterLocation", text, sizeof text, &size) == TVS_OK &&
             strcmp(text, "2nd floor") == 0);
    CALL(GetPrinterStatusW, (manager, WIDE("PrinterLocation"), wide, sizeof wide, &size), TVS_OK,
         memcmp(wide, place, sizeof place) == 0);
    CALL(GetPrinterStatusInfoA, (manager, "PrinterLocation", &time), TVS_OK, time.wYear >= 2024);
    CALL(GetPrinterStatusInfoW, (manager, WIDE("PrinterLocation"), &wide_time), TVS_OK,
         memcmp(&time, &wide_time, sizeof time) == 0);

    value = 21;
    CALL(SetPrinterStatusDirectA, (manager, number, &value, sizeof value), TVS_OK, number_of(manager, number) == 21);
    CALL(GetPrinterStatusDirectA, (manager, number, &value, sizeof value, &size), TVS_OK, value == 21 && size == 4);
    value = 22;
    CALL(SetPrinterStatusDirectW, (manager, wide_number, &value, sizeof value), TVS_OK,
         number_of(manager, number) == 22);
    CALL(GetPrinterStatusDirectW, (manager, wide_number, &value, sizeof value, &size), TVS_OK,
         value == 22 && size == 4);
}

static void requests(TvsManager manager, const char* number, const TvsWideChar* wide_number) {
    uint32_t value = 31, id = 0;
    int32_t result = 99;

    CALL(SetReqPrinterStatusEventA, (manager, number, &value, sizeof value, g_event, &id), TVS_OK,
         id != 0 && event_was_set() && number_of(manager, number) == 31);
    CALL(ResSetPrinterStatus, (manager, id, &result), TVS_OK, result == TVS_OK);
    value = 32;
    CALL(SetReqPrinterStatusEventW, (manager, wide_number, &value, sizeof value, g_event, &id), TVS_OK,
         id != 0 && event_was_set() && number_of(manager, number) == 32);
    value = 33;
    CALL(SetReqPrinterStatusMsgA, (manager, number, &value, sizeof value, g_window, FIRST_MESSAGE, &id), TVS_OK,
         id != 0 && was_posted(FIRST_MESSAGE) && number_of(manager, number) == 33);
    value = 34;
    CALL(SetReqPrinterStatusMsgW, (manager, wide_number, &value, sizeof value, g_window, FIRST_MESSAGE + 1, &id),
         TVS_OK, id != 0 && was_posted(FIRST_MESSAGE + 1) && number_of(manager, number) == 34);
    CALL(GetReqPrinterStatusEventA, (manager, number, g_event), TVS_OK, event_was_set());
    CALL(GetReqPrinterStatusEventW, (manager, wide_number, g_event), TVS_OK, event_was_set());
    CALL(GetReqPrinterStatusMsgA, (manager, number, g_window, FIRST_MESSAGE + 2), TVS_OK,
         was_posted(FIRST_MESSAGE + 2));
    CALL(GetReqPrinterStatusMsgW, (manager, wide_number, g_window, FIRST_MESSAGE + 3), TVS_OK,
         was_posted(FIRST_MESSAGE + 3));
}

/* Each registration tells a change, and tells nothing once it is cancelled. */
static void notifications(TvsManager manager) {
    static const char list[] = "SpoolerStatus;ClientStatus";
    static const TvsWideChar wide_list[] = WIDE("SpoolerStatus;ClientStatus");
    HANDLE other = CreateEventA(NULL, FALSE, FALSE, NULL);
    void* const events[] = {other, g_event};
    static const uint32_t messages[] = {FIRST_MESSAGE + 10, FIRST_MESSAGE + 11};
    static const TvsCallback callbacks[] = {on_change, on_change};
    static const uint32_t without_value[] = {0, 0};
    TvsRegistration one = 0, second = 0, third = 0, fourth = 0;

    CALL(SetNotificationEventA, (manager, "ClientStatus", g_event, &one), TVS_OK,
         one != 0 && change(manager) && event_was_set());
    CALL(KillNotificationEvent, (manager, one), TVS_OK, KillNotificationEvent(manager, one) == TVS_E_HANDLE);
    ResetEvent(g_event);
    CALL(SetNotificationEventW, (manager, WIDE("ClientStatus"), g_event, &one), TVS_OK,
         change(manager) && event_was_set());
    CHECK(KillNotificationEvent(manager, one) == TVS_OK);
    ResetEvent(g_event);
    CALL(SetNotificationEventExA, (manager, 2, list, events, &one), TVS_OK, change(manager) && event_was_set());
    CHECK(KillNotificationEvent(manager, one) == TVS_OK);
    ResetEvent(g_event);
    CALL(SetNotificationEventExW, (manager, 2, wide_list, events, &one), TVS_OK, change(manager) && event_was_set());
    CHECK(KillNotificationEvent(manager, one) == TVS_OK);
    CHECK(WaitForSingleObject(other, 0) == WAIT_TIMEOUT); /* that variable was not written */

    CALL(SetNotificationMsgA, (manager, "ClientStatus", g_window, FIRST_MESSAGE + 4, &one), TVS_OK,
         change(manager) && was_posted(FIRST_MESSAGE + 4));
    CALL(SetNotificationMsgW, (manager, WIDE("ClientStatus"), g_window, FIRST_MESSAGE + 5, &second), TVS_OK,
         change(manager) && was_posted(FIRST_MESSAGE + 5));
    CALL(SetNotificationMsgExA, (manager, 2, list, g_window, messages, &third), TVS_OK,
         change(manager) && was_posted(messages[1]));
    CALL(KillNotificationMsg, (manager, third), TVS_OK, 1);
    CALL(SetNotificationMsgExW, (manager, 2, wide_list, g_window, messages, &fourth), TVS_OK,
         change(manager) && was_posted(messages[1]));
    CHECK(KillNotificationMsg(manager, one) == TVS_OK && KillNotificationMsg(manager, second) == TVS_OK &&
          KillNotificationMsg(manager, fourth) == TVS_OK);

    CALL(SetNotificationCallbackA, (manager, "ClientStatus", on_change, 0, &one), TVS_OK,
         was_called(manager, 0, change(manager)));
    CALL(KillNotificationCallback, (manager, one), TVS_OK, 1);
    ResetEvent(g_called);
    CALL(SetNotificationCallbackExA, (manager, 2, list, callbacks, without_value, &one), TVS_OK,
         was_called(manager, 1, change(manager)));
    CHECK(KillNotificationCallback(manager, one) == TVS_OK);
    CloseHandle(other);
}

static void widen(const char* from, TvsWideChar* to, size_t size) {
    size_t i = 0;

    for (; from[i] != '\0' && i + 1 < size; ++i)
        to[i] = (TvsWideChar)from[i];
    to[i] = 0;
}

int main(int argc, char** argv) {
    TvsManager opened = 0, ordinary = 0, wide = 0, owner = 0;
    TvsWideChar printer[260], number[32];
    WNDCLASSEXA window_class = {0};

    if (argc != 3) {
        fputs("usage: every_export PRINTER NUMBER\n", stderr);
        return 2;
    }
    widen(argv[1], printer, sizeof printer / sizeof printer[0]);
    widen(argv[2], number, sizeof number / sizeof number[0]);
    window_class.cbSize = sizeof window_class;
    window_class.lpfnWndProc = DefWindowProcA;
    window_class.lpszClassName = WINDOW_CLASS;
    RegisterClassExA(&window_class);
    g_window = CreateWindowExA(0, WINDOW_CLASS, "", 0, 0, 0, 0, 0, NULL, NULL, NULL, NULL);
    g_event = CreateEventA(NULL, FALSE, FALSE, NULL);
    g_called = CreateEventA(NULL, FALSE, FALSE, NULL);
    CHECK(g_window != NULL && g_event != NULL && g_called != NULL);

    /* The owner of the printer, and an ordinary manager, so that this process serves its registrations itself. */
    CALL(OpenManagerExA, (argv[1], USER, TVS_KIND_OWNER, &owner), TVS_OK, owner != 0);
    CALL(OpenManagerExW, (printer, WIDE("\\\\.\\kptmon"), 2, &ordinary), TVS_OK,
         ordinary != 0 && number_of(ordinary, "UserAuthority") == 31);
    CALL(OpenManagerA, (argv[1], NULL, &opened), TVS_OK, opened != 0);
    CALL(OpenManagerW, (printer, NULL, &wide), TVS_OK, wide != 0 && wide != opened);
    values(ordinary, argv[2], number);
    requests(ordinary, argv[2], number);
    notifications(ordinary);
    CALL(CloseManager, (ordinary), TVS_OK, CloseManager(ordinary) == TVS_E_HANDLE);
    CHECK(CloseManager(opened) == TVS_OK && CloseManager(wide) == TVS_OK && CloseManager(owner) == TVS_OK);

    CloseHandle(g_called);
    CloseHandle(g_event);
    DestroyWindow(g_window);
    return g_failures == 0 ? 0 : 1;
}
