// One client process of the library. bench_client OPERATION [ARGUMENT]
//
//   read PRINTER     GetPrinterStatusA of "PrinterStatus", 12 bytes
//   update PRINTER   UpdatePrinterStatusA of "JobStatus", 4 bytes, another value each time
//   open PRINTER     OpenManagerExA and CloseManager
//   told-event|told-message|told-callback PRINTER
//                    an update, until a registration of this process has delivered it in that form
//   watched PRINTER N
//                    an update while N registrations of this process watch the variable
//   mutex            the named mutex alone: lock and release, without contention
//   event            a named event alone: set, test, reset
//   printers N       no rounds: opens the printers 1 to N, each for the first time, and keeps them open; prints the
//                    nanoseconds of each open
//
// State: the event that deliveries set (g_told).
#include <tvsqdz.h>
#include <windows.h>

#include "rounds.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

// A client without a special purpose: its opens need no initialised product and start nothing.
constexpr uint32_t kClientKind = 3;

TvsManager Open(const char* printer) {
    TvsManager manager = 0;
    const int32_t status = OpenManagerExA(printer, "bench", kClientKind, &manager);
    if (status != TVS_OK) {
        std::fprintf(stderr, "%s cannot be opened: status %d\n", printer, status);
        std::exit(1);
    }
    return manager;
}

int MeasureReads(const char* printer) {
    const TvsManager manager = Open(printer);
    return ServeRounds([manager] {
        char value[12];
        uint32_t size = 0;
        return GetPrinterStatusA(manager, "PrinterStatus", value, sizeof value, &size) == TVS_OK &&
               size == sizeof value;
    });
}

int MeasureUpdates(const char* printer) {
    const TvsManager manager = Open(printer);
    uint32_t value = 0;
    return ServeRounds([manager, value]() mutable {
        ++value;
        return UpdatePrinterStatusA(manager, "JobStatus", &value, sizeof value) == TVS_OK;
    });
}

int MeasureOpens(const char* printer) {
    Open(printer); // the first open creates the database
    return ServeRounds([printer] { return CloseManager(Open(printer)) == TVS_OK; });
}

// ---- notifications

constexpr char kToldVariable[] = "JobStatus";
HANDLE g_told = nullptr; // automatic

void TVS_CALL OnCall(TvsManager, uint32_t, const char*, const void*, uint32_t) {
    SetEvent(g_told);
}

// The measuring thread owns the window and takes the message from the queue.
HWND CreateMessageWindow() {
    WNDCLASSEXA windowClass{};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = &DefWindowProcA;
    windowClass.lpszClassName = "Bench";
    RegisterClassExA(&windowClass);
    return CreateWindowExA(0, "Bench", "", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
}

int MeasureTold(const std::string& form, const char* printer) {
    const TvsManager manager = Open(printer);
    g_told = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    const HWND window = CreateMessageWindow();
    TvsRegistration registration = 0;
    int32_t status = TVS_E_UNKNOWN;
    if (form == "told-event") status = SetNotificationEventA(manager, kToldVariable, g_told, &registration);
    if (form == "told-message") status = SetNotificationMsgA(manager, kToldVariable, window, WM_APP, &registration);
    if (form == "told-callback") status = SetNotificationCallbackA(manager, kToldVariable, &OnCall, 1, &registration);
    if (status != TVS_OK) {
        std::fprintf(stderr, "%s: status %d\n", form.c_str(), status);
        return 1;
    }
    const bool byMessage = form == "told-message";
    uint32_t value = 0;
    return ServeRounds([=]() mutable {
        ++value;
        if (UpdatePrinterStatusA(manager, kToldVariable, &value, sizeof value) != TVS_OK) return false;
        MSG message;
        return byMessage ? GetMessageA(&message, window, 0, 0) > 0
                         : WaitForSingleObject(g_told, 10000) == WAIT_OBJECT_0;
    });
}

int MeasureWatched(const char* printer, long count) {
    const TvsManager manager = Open(printer);
    g_told = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    for (long i = 0; i < count; ++i) {
        TvsRegistration registration = 0;
        if (SetNotificationEventA(manager, kToldVariable, g_told, &registration) != TVS_OK) return 1;
    }
    uint32_t value = 0;
    return ServeRounds([manager, value]() mutable {
        ++value;
        return UpdatePrinterStatusA(manager, kToldVariable, &value, sizeof value) == TVS_OK;
    });
}

int MeasureMutex() {
    const HANDLE mutex = CreateMutexA(nullptr, FALSE, "bench:mutex");
    return ServeRounds(
        [mutex] { return WaitForSingleObject(mutex, INFINITE) == WAIT_OBJECT_0 && ReleaseMutex(mutex); });
}

int MeasureEvent() {
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, "bench:event");
    return ServeRounds([event] {
        return SetEvent(event) && WaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0 && ResetEvent(event);
    });
}

int OpenPrinters(long count) {
    std::vector<double> nanoseconds;
    for (long i = 1; i <= count; ++i) {
        const std::string name = "Printer " + std::to_string(i);
        const double start = NowNs();
        Open(name.c_str());
        nanoseconds.push_back(NowNs() - start);
    }
    for (const double each : nanoseconds)
        std::printf("%.0f\n", each);
    std::fflush(stdout);
    std::getchar(); // the managers stay open while the service's memory is measured
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string operation = argc > 1 ? argv[1] : "";
    const char* argument = argc > 2 ? argv[2] : "";
    if (operation == "read") return MeasureReads(argument);
    if (operation == "update") return MeasureUpdates(argument);
    if (operation == "open") return MeasureOpens(argument);
    if (operation.starts_with("told-")) return MeasureTold(operation, argument);
    if (operation == "watched") return MeasureWatched(argument, argc > 3 ? std::strtol(argv[3], nullptr, 10) : 0);
    if (operation == "mutex") return MeasureMutex();
    if (operation == "event") return MeasureEvent();
    if (operation == "printers") return OpenPrinters(std::strtol(argument, nullptr, 10));
    std::fprintf(
        stderr,
        "usage: bench_client read|update|open|told-FORM PRINTER | watched PRINTER N | mutex | event | printers N\n");
    return 2;
}
