// One client process of the library. bench_client OPERATION [ARGUMENT]
//
//   read PRINTER VARIABLE BYTES
//                    GetPrinterStatusA; a variable-length value gets that length first
//   read-heap PRINTER VARIABLE BYTES
//                    the same with name, value and size in memory of the heap, which the library cannot trust
//   read-by-call PRINTER VARIABLE BYTES
//                    the same in a process that cannot map published values
//   info PRINTER     GetPrinterStatusInfoA of "PrinterStatus"
//   update PRINTER   UpdatePrinterStatusA of "JobStatus", 4 bytes, another value each time
//   open PRINTER     OpenManagerExA and CloseManager
//   first-open       OpenManagerExA of the printers "First 1", "First 2" and so on, which stay open
//   told-event|told-message|told-callback PRINTER
//                    an update, until a registration of this process has delivered it in that form
//   watched PRINTER N
//                    an update while N registrations of this process watch the variable
//   mutex            the named mutex alone: lock and release, without contention
//   event            a named event alone: set, test, reset
//   open-object      OpenEventA of an event that another process has, and CloseHandle
//   printers FIRST LAST
//                    no rounds: opens the printers of these numbers, each for the first time, and keeps them open,
//                    until one cannot be opened; prints the nanoseconds of each open, then the number of opens
//   watchers PRINTER N
//                    no rounds: the bytes of this process for each of N registrations that wait, some seconds after they
//                    were told once; they stay
//
// State: the event that deliveries set (g_told).
#include <tvsqdz.h>
#include <windows.h>

#include "no_section.h"
#include "rounds.h"

#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>

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

void GiveSize(TvsManager manager, const char* variable, uint32_t size) {
    uint32_t present = 0;
    GetPrinterStatusA(manager, variable, nullptr, 0, &present);
    if (present == size) return;
    const std::vector<char> value(size, 'v');
    const int32_t status = UpdatePrinterStatusA(manager, variable, value.data(), size);
    if (status == TVS_OK) return;
    std::fprintf(stderr, "%s takes no value of %u bytes: status %d\n", variable, size, status);
    std::exit(1);
}

int MeasureReads(const std::string& form, const char* printer, const char* variable, uint32_t size) {
    if (form == "read-by-call" && !RefuseSections()) {
        std::fprintf(stderr, "this system has no filter of system calls\n");
        return 1;
    }
    const TvsManager manager = Open(printer);
    GiveSize(manager, variable, size);
    if (form == "read-heap") {
        const std::string name(variable);
        const auto value = std::make_unique<char[]>(size);
        const auto returned = std::make_unique<uint32_t>();
        return ServeRounds([&] {
            return GetPrinterStatusA(manager, name.c_str(), value.get(), size, returned.get()) == TVS_OK &&
                   *returned == size;
        });
    }
    char name[64];
    char value[32768];
    if (std::strlen(variable) >= sizeof name || size > sizeof value) return 2;
    std::strcpy(name, variable);
    return ServeRounds([&] {
        uint32_t returned = 0;
        return GetPrinterStatusA(manager, name, value, size, &returned) == TVS_OK && returned == size;
    });
}

int MeasureInfo(const char* printer) {
    const TvsManager manager = Open(printer);
    return ServeRounds([manager] {
        SYSTEMTIME time;
        return GetPrinterStatusInfoA(manager, "PrinterStatus", &time) == TVS_OK;
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

int MeasureFirstOpens() {
    return ServeRounds([number = 0]() mutable {
        Open(("First " + std::to_string(++number)).c_str());
        return true;
    });
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

int MeasureObjectOpens() {
    const char* const name = "bench:object";
    int ready[2];
    if (pipe(ready) != 0) return 1;
    const pid_t holder = fork();
    if (holder == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const HANDLE held = CreateEventA(nullptr, TRUE, FALSE, name);
        if (held == nullptr || write(ready[1], "r", 1) != 1) _exit(1);
        for (;;)
            pause();
    }
    char byte = 0;
    close(ready[1]);
    if (read(ready[0], &byte, 1) != 1) return 1;
    return ServeRounds([name] {
        const HANDLE event = OpenEventA(SYNCHRONIZE, FALSE, name);
        return event != nullptr && CloseHandle(event);
    });
}

int OpenPrinters(long first, long last) {
    std::vector<double> nanoseconds;
    for (long i = first; i <= last; ++i) {
        const std::string name = "Printer " + std::to_string(i);
        const double start = NowNs();
        TvsManager manager = 0;
        const int32_t status = OpenManagerExA(name.c_str(), "bench", kClientKind, &manager);
        if (status != TVS_OK) {
            std::fprintf(stderr, "%s cannot be opened: status %d\n", name.c_str(), status);
            break;
        }
        nanoseconds.push_back(NowNs() - start);
    }
    for (const double each : nanoseconds)
        std::printf("%.0f ", each);
    std::printf("%zu\n", nanoseconds.size());
    std::fflush(stdout);
    std::getchar(); // the managers stay open while the service's memory is measured
    return 0;
}

// The share of this process in the memory that it maps.
double ProportionalBytes() {
    std::ifstream smaps("/proc/self/smaps_rollup");
    for (std::string word; smaps >> word;) {
        double kib = 0;
        if (word == "Pss:" && smaps >> kib) return kib * 1024;
    }
    std::fprintf(stderr, "/proc/self/smaps_rollup has no Pss\n");
    std::exit(1);
}

// Every registration has an event of its own, to know that each has delivered and waits again.
// Longer than a watcher's look for a new service, after which it gives back what it does not use.
constexpr DWORD kRestsAfterMs = 5000;

int HoldWatchers(const char* printer, size_t count) {
    const TvsManager manager = Open(printer);
    std::vector<HANDLE> events(count + 1);
    for (HANDLE& event : events)
        event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    double before = 0;
    for (const HANDLE event : events) {
        TvsRegistration registration = 0;
        if (SetNotificationEventA(manager, kToldVariable, event, &registration) != TVS_OK) return 1;
        if (event == events.front()) before = ProportionalBytes();
    }
    const auto value = static_cast<uint32_t>(NowNs() / 1000);
    if (UpdatePrinterStatusA(manager, kToldVariable, &value, sizeof value) != TVS_OK) return 1;
    for (const HANDLE event : events)
        if (WaitForSingleObject(event, 10000) != WAIT_OBJECT_0) return 1;
    Sleep(kRestsAfterMs);
    std::printf("%.0f\n", (ProportionalBytes() - before) / static_cast<double>(count));
    std::fflush(stdout);
    std::getchar(); // the registrations stay while the service's memory is measured
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string operation = argc > 1 ? argv[1] : "";
    const char* argument = argc > 2 ? argv[2] : "";
    const long last = std::strtol(argv[argc - 1], nullptr, 10);
    if (operation.starts_with("read") && argc == 5)
        return MeasureReads(operation, argument, argv[3], static_cast<uint32_t>(last));
    if (operation == "info") return MeasureInfo(argument);
    if (operation == "update") return MeasureUpdates(argument);
    if (operation == "open") return MeasureOpens(argument);
    if (operation == "first-open") return MeasureFirstOpens();
    if (operation.starts_with("told-")) return MeasureTold(operation, argument);
    if (operation == "watched") return MeasureWatched(argument, last);
    if (operation == "mutex") return MeasureMutex();
    if (operation == "event") return MeasureEvent();
    if (operation == "open-object") return MeasureObjectOpens();
    if (operation == "printers") return OpenPrinters(std::strtol(argument, nullptr, 10), last);
    if (operation == "watchers" && argc == 4) return HoldWatchers(argument, static_cast<size_t>(last));
    std::fprintf(stderr, "usage: bench_client OPERATION [ARGUMENT]...; client.cpp lists the operations\n");
    return 2;
}
