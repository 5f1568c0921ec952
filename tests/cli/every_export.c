/* Calls each of the library's exports against the running product, as a plain C program does.
 *
 *     every_export
 *
 * The printer is "Back office"; it can be asked for its "Copies", and told. Prints the name of each function whose call
 * did what it is to do; what did not goes to standard error, and the exit code is 1. */
#include <stdio.h>
#include <string.h>

#include <tvsqdz.h>
#include <windows.h>

#if defined(_WIN32)
#define WIDE_LITERAL(text) L##text
#else
#define WIDE_LITERAL(text) u##text
#endif
#define WIDE(text) WIDE_LITERAL(text)
#define PRINTER "Back office"
#define NUMBER "Copies"
#define NOTED "ClientStatus"              /* which is watched */
#define LIST "SpoolerStatus;ClientStatus" /* the latter, behind one that is not written */
#define USER "\\\\.\\kptmon"              /* the product's own port monitor, who may do everything */

#define WAIT_MS 20000u
#define MESSAGE (WM_APP + 1)

static int g_failures;

static int check(int good, const char* what, int line) {
    if (!good) fprintf(stderr, "line %d: %s\n", line, what);
    g_failures += !good;
    return good;
}
static int named(const char* function) {
    return puts(function) >= 0;
}
#define CHECK(condition) check((condition), #condition, __LINE__)
/* A call of an export that must succeed, and a condition that must hold afterwards. */
#define CALL(function, arguments, condition)                                                                           \
    (check(function arguments == TVS_OK, #function, __LINE__) && CHECK(condition) ? named(#function) : 0)
#define ARGUMENTS(...) __VA_ARGS__
/* The same of both forms of an export that takes a text. */
#define BOTH(function, before, text, after, condition)                                                                 \
    do {                                                                                                               \
        CALL(function##A, (ARGUMENTS before, text, ARGUMENTS after), condition);                                       \
        CALL(function##W, (ARGUMENTS before, WIDE(text), ARGUMENTS after), condition);                                 \
    } while (0)

static TvsManager g_manager;
static HANDLE g_event, g_called;
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

/* What the callbacks were told last; the place in the list is 99 when it was not of this manager or variable. */
static uint32_t g_called_index, g_called_value;

static void TVS_CALL on_change(TvsManager manager, uint32_t index, const char* variable, const void* value,
                               uint32_t size) {
    g_called_index = manager == g_manager && strcmp(variable, NOTED) == 0 ? index : 99;
    if (value != NULL && size == sizeof g_called_value) memcpy(&g_called_value, value, sizeof g_called_value);
    SetEvent(g_called);
}

static uint32_t number_of(const char* variable) {
    uint32_t value = 0xEEEEEEEE, size = 0;

    CHECK(GetPrinterStatusA(g_manager, variable, &value, sizeof value, &size) == TVS_OK && size == sizeof value);
    return value;
}

/* Another value than before. */
static uint32_t g_value = 20;
static uint32_t* next_value(void) {
    ++g_value;
    return &g_value;
}

/* Writes another value of the variable that is watched. */
static int change(void) {
    return CHECK(UpdatePrinterStatusA(g_manager, NOTED, next_value(), sizeof g_value) == TVS_OK);
}

static int was_called(uint32_t index) {
    return WaitForSingleObject(g_called, WAIT_MS) == WAIT_OBJECT_0 && g_called_index == index &&
           g_called_value == g_value;
}

static void values(void) {
    static const TvsWideChar place[] = WIDE("2nd floor");
    TvsWideChar wide[260];
    char text[260];
    uint32_t size = 0, value = 0;
    SYSTEMTIME time = {0};

    CALL(UpdatePrinterStatusA, (g_manager, "PrinterLocation", "cellar", 7), 1);
    CALL(GetPrinterStatusA, (g_manager, "PrinterLocation", text, sizeof text, &size),
         size == 7 && strcmp(text, "cellar") == 0);
    CALL(UpdatePrinterStatusW, (g_manager, WIDE("PrinterLocation"), place, sizeof place), 1);
    CALL(GetPrinterStatusW, (g_manager, WIDE("PrinterLocation"), wide, sizeof wide, &size),
         memcmp(wide, place, sizeof place) == 0);
    BOTH(GetPrinterStatusInfo, (g_manager), "PrinterLocation", (&time), time.wYear >= 2024);
    BOTH(SetPrinterStatusDirect, (g_manager), NUMBER, (next_value(), sizeof value), number_of(NUMBER) == g_value);
    BOTH(GetPrinterStatusDirect, (g_manager), NUMBER, (&value, sizeof value, &size), value == g_value && size == 4);
}

static void requests(void) {
    uint32_t id = 0;
    int32_t result = 99;

    BOTH(SetReqPrinterStatusEvent, (g_manager), NUMBER, (next_value(), sizeof g_value, g_event, &id),
         id != 0 && event_was_set() && number_of(NUMBER) == g_value);
    CALL(ResSetPrinterStatus, (g_manager, id, &result), result == TVS_OK);
    BOTH(SetReqPrinterStatusMsg, (g_manager), NUMBER, (next_value(), sizeof g_value, g_window, MESSAGE, &id),
         id != 0 && was_posted(MESSAGE) && number_of(NUMBER) == g_value);
    BOTH(GetReqPrinterStatusEvent, (g_manager), NUMBER, (g_event), event_was_set());
    BOTH(GetReqPrinterStatusMsg, (g_manager), NUMBER, (g_window, MESSAGE), was_posted(MESSAGE));
}

/* Each registration tells a change, and is cancelled once. */
static void notifications(void) {
    HANDLE other = CreateEventA(NULL, FALSE, FALSE, NULL);
    void* const events[] = {other, g_event};
    static const uint32_t messages[] = {MESSAGE, MESSAGE + 1}, without_value[] = {0, 0};
    static const TvsCallback callbacks[] = {on_change, on_change};
    TvsRegistration one = 0;

#define CANCELLED(function)                                                                                            \
    (CALL(function, (g_manager, one), function(g_manager, one) == TVS_E_HANDLE) && ResetEvent(g_event) &&              \
     ResetEvent(g_called))
    BOTH(SetNotificationEvent, (g_manager), NOTED, (g_event, &one),
         change() && event_was_set() && CANCELLED(KillNotificationEvent));
    BOTH(SetNotificationEventEx, (g_manager, 2), LIST, (events, &one),
         change() && event_was_set() && CANCELLED(KillNotificationEvent));
    CHECK(WaitForSingleObject(other, 0) == WAIT_TIMEOUT); /* that variable was not written */
    BOTH(SetNotificationMsg, (g_manager), NOTED, (g_window, MESSAGE, &one),
         change() && was_posted(MESSAGE) && CANCELLED(KillNotificationMsg));
    BOTH(SetNotificationMsgEx, (g_manager, 2), LIST, (g_window, messages, &one),
         change() && was_posted(MESSAGE + 1) && CANCELLED(KillNotificationMsg));
    CALL(SetNotificationCallbackA, (g_manager, NOTED, on_change, 0, &one),
         change() && was_called(0) && CANCELLED(KillNotificationCallback));
    CALL(SetNotificationCallbackExA, (g_manager, 2, LIST, callbacks, without_value, &one),
         change() && was_called(1) && CANCELLED(KillNotificationCallback));
    CloseHandle(other);
}

int main(void) {
    TvsManager opened = 0, wide = 0, owner = 0;
    WNDCLASSEXA window_class = {0};

    /* The window of the desktop agent, which an open of kind 0 would otherwise start. */
    window_class.cbSize = sizeof window_class;
    window_class.lpfnWndProc = DefWindowProcA;
    window_class.lpszClassName = "TVORPSPWndClass";
    RegisterClassExA(&window_class);
    g_window = CreateWindowExA(0, "TVORPSPWndClass", "", 0, 0, 0, 0, 0, NULL, NULL, NULL, NULL);
    g_event = CreateEventA(NULL, FALSE, FALSE, NULL);
    g_called = CreateEventA(NULL, FALSE, FALSE, NULL);
    CHECK(g_window != NULL && g_event != NULL && g_called != NULL);

    /* The owner of the printer, and an ordinary manager, so that this process serves its registrations itself. */
    CALL(OpenManagerExA, (PRINTER, USER, TVS_KIND_OWNER, &owner), owner != 0);
    CALL(OpenManagerExW, (WIDE(PRINTER), WIDE(USER), 2, &g_manager),
         g_manager != 0 && number_of("UserAuthority") == 31);
    CALL(OpenManagerA, (PRINTER, NULL, &opened), opened != 0);
    CALL(OpenManagerW, (WIDE(PRINTER), NULL, &wide), wide != 0 && wide != opened);
    values();
    requests();
    notifications();
    CALL(CloseManager, (g_manager), CloseManager(g_manager) == TVS_E_HANDLE);
    CHECK(CloseManager(opened) == TVS_OK && CloseManager(wide) == TVS_OK && CloseManager(owner) == TVS_OK);

    CloseHandle(g_called);
    CloseHandle(g_event);
    DestroyWindow(g_window);
    return g_failures == 0 ? 0 : 1;
}
