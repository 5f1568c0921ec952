/* A program with an event loop of its own (poll; select and epoll do as well) prints what is written of a printer, until its
 * standard input ends:
 *
 *     event_loop ["printer name"]
 *
 * It watches "TonerLevel" by an event and "PrinterLocation" by messages to a window; an application needs one of the two.
 * oriel_poll.h gives descriptors for both. */
#include <poll.h>
#include <stdio.h>

#include <windows.h>

#include <oriel_poll.h>
#include <tvsqdz_status.h>

#define ORDINARY_CLIENT 3
#define WM_LOCATION_WRITTEN (WM_APP + 1)

enum { INPUT, EVENT, WINDOW, DESCRIPTORS };

static TvsManager manager;

static int failed(const char* what, int32_t status) {
    if (status == TVS_OK) return 0;
    fprintf(stderr, "event_loop: %s: %s (status %d)\n", what, TvsStatusText(status), (int)status);
    return 1;
}

static int failed_here(const char* what) {
    fprintf(stderr, "event_loop: %s: error %u\n", what, (unsigned)GetLastError());
    return 1;
}

static void show_level(void) {
    uint32_t level, size;

    if (failed("reading TonerLevel", GetPrinterStatusA(manager, "TonerLevel", &level, sizeof level, &size))) return;
    printf("TonerLevel: %u\n", (unsigned)level);
    fflush(stdout);
}

static void show_location(void) {
    char location[260];
    uint32_t size;

    if (failed("reading PrinterLocation", GetPrinterStatusA(manager, "PrinterLocation", location, sizeof location, &size)))
        return;
    printf("PrinterLocation: %s\n", location);
    fflush(stdout);
}

static LRESULT CALLBACK procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message != WM_LOCATION_WRITTEN) return DefWindowProcA(window, message, wParam, lParam);
    show_location();
    return 0;
}

static HWND make_window(void) {
    WNDCLASSEXA class = {.cbSize = sizeof class, .lpfnWndProc = procedure, .lpszClassName = "OrielEventLoop"};

    if (!RegisterClassExA(&class)) return NULL;
    return CreateWindowExA(0, class.lpszClassName, "", WS_OVERLAPPED, 0, 0, 0, 0, NULL, NULL, NULL, NULL);
}

static int serve(struct pollfd* watched, HANDLE written) {
    for (;;) {
        if (poll(watched, DESCRIPTORS, -1) < 0) continue; /* a signal */
        if (watched[EVENT].revents) {
            /* In this order nothing is missed: what is written from here on makes the descriptor readable again. */
            ResetEvent(written);
            if (!OrielRearmEventDescriptor(watched[EVENT].fd)) return failed_here("waiting for the event");
            show_level();
        }
        if (watched[WINDOW].revents) {
            MSG message;

            while (PeekMessageA(&message, NULL, 0, 0, PM_REMOVE)) DispatchMessageA(&message);
        }
        if (watched[INPUT].revents && getchar() == EOF) return 0;
    }
}

int main(int argc, char** argv) {
    HANDLE written = CreateEventA(NULL, TRUE, FALSE, NULL);
    HWND window = make_window();
    struct pollfd watched[DESCRIPTORS] = {[INPUT] = {0, POLLIN, 0},
                                          [EVENT] = {OrielEventDescriptor(written), POLLIN, 0},
                                          [WINDOW] = {OrielWindowQueueDescriptor(), POLLIN, 0}};
    TvsRegistration by_event, by_message;
    int result;

    if (!window || watched[EVENT].fd < 0 || watched[WINDOW].fd < 0) return failed_here("making window and event");
    if (failed("opening a manager", OpenManagerExA(argc > 1 ? argv[1] : "Front desk", NULL, ORDINARY_CLIENT, &manager)))
        return 1;
    if (failed("watching TonerLevel", SetNotificationEventA(manager, "TonerLevel", written, &by_event)) ||
        failed("watching PrinterLocation",
               SetNotificationMsgA(manager, "PrinterLocation", window, WM_LOCATION_WRITTEN, &by_message)))
        return 1;
    printf("watching\n");
    fflush(stdout);
    setvbuf(stdin, NULL, _IONBF, 0); /* poll sees what no buffer holds */
    result = serve(watched, written);
    CloseManager(manager); /* with its registrations */
    OrielCloseEventDescriptor(watched[EVENT].fd);
    DestroyWindow(window);
    CloseHandle(written);
    return result;
}
