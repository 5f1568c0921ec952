// No state. Runs during opens, under the database mutex: every wait here delays the opens of the whole machine.
#include "machine/status_service.h"

#include "base/system.h"
#include "base/timings.h"
#include "machine/objects.h"
#include "product/guards.h"
#include "product/interface.h"
#include "product/object_names.h"
#include "product/printer_list.h"

namespace {

constexpr char kWindowClass[] = "TVORSDB95WndClass";
constexpr char kWindowTitle[] = "TVORSDB95";
constexpr char kRunServicesKey[] = "SOFTWARE\\Tavik\\Oriel\\RunServices";
constexpr DWORD kExecutablePathSize = 260;
constexpr int kStartUpProcessLooks = 6;

DWORD WithinHintBounds(DWORD hint) {
    if (hint < g_timings.shortestWaitHint) return g_timings.shortestWaitHint;
    return hint > g_timings.longestWaitHint ? g_timings.longestWaitHint : hint;
}

HWND ServiceWindow() {
    return FindWindowA(kWindowClass, kWindowTitle);
}

bool StartUpProcessRuns() {
    for (int look = 0; look < kStartUpProcessLooks; ++look) {
        const KernelHandle mutex(OpenMutexA(SYNCHRONIZE, FALSE, product::kStartUpMutexName));
        if (mutex) return true;
        Sleep(g_timings.startUpPoll);
    }
    return false;
}

// Asks the running process to close and waits until its window is gone; false when it stays.
bool CloseServiceWindow() {
    const DWORD start = GetTickCount();
    HWND window = ServiceWindow();
    if (window == nullptr) return true;
    // Bounded: a hung process does not answer.
    DWORD_PTR ignored = 0;
    SendMessageTimeoutA(window, WM_CLOSE, 0, 0, SMTO_NORMAL, g_timings.closeBound, &ignored);
    while (IsWindow(window)) {
        if (GetTickCount() - start >= g_timings.closeBound) return false;
        Sleep(g_timings.closePoll);
    }
    return true;
}

// The new process needs a moment before it takes calls; repeating the call at once would only restart it again.
void WaitForServiceWindow() {
    const DWORD start = GetTickCount();
    while (ServiceWindow() == nullptr && GetTickCount() - start < g_timings.restartBound)
        Sleep(g_timings.restartPoll);
}

} // namespace

bool WaitForStatusService(DWORD seconds) {
    DWORD polls = seconds * 2;
    const ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, GENERIC_READ));
    if (!manager) return false;
    const ServiceHandle service(OpenServiceA(manager.Get(), product::kServiceName, SERVICE_QUERY_STATUS));
    if (!service) return false;
    for (;;) {
        SERVICE_STATUS status;
        if (!QueryServiceStatus(service.Get(), &status)) return false;
        if (status.dwCurrentState == SERVICE_RUNNING) return true;
        if (status.dwCurrentState == SERVICE_STOPPED) return false;
        if (status.dwCurrentState == SERVICE_START_PENDING && status.dwCheckPoint != 0) {
            Sleep(WithinHintBounds(status.dwWaitHint)); // it reports progress: not counted
            continue;
        }
        Sleep(g_timings.servicePoll);
        if (polls <= 1) return false;
        --polls;
    }
}

bool WaitForStatusService9x(DWORD seconds) {
    if (!StartUpProcessRuns()) return false;
    for (DWORD polls = seconds * 2; polls > 0; --polls) {
        if (ServiceWindow() != nullptr) {
            Sleep(g_timings.windowSettle);
            return true;
        }
        Sleep(g_timings.windowPoll);
    }
    return false;
}

bool RestartStatusService9x() {
    if (PlatformBit() != OsWindows9x) return false;
    char path[kExecutablePathSize + 1];
    {
        const RegistryKey runServices = OpenKey(HKEY_LOCAL_MACHINE, kRunServicesKey, KEY_QUERY_VALUE);
        if (!runServices || !ReadRegistryText(runServices.Get(), product::kServiceName, path, sizeof path))
            return false;
    }
    if (!CloseServiceWindow()) return false;
    STARTUPINFOA startUp = {};
    startUp.cb = sizeof startUp;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessA(path, nullptr, nullptr, nullptr, FALSE, NORMAL_PRIORITY_CLASS, nullptr, nullptr, &startUp,
                        &process))
        return false;
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    WaitForServiceWindow();
    return true;
}

namespace {

// A creator can abandon a database again and again. Five times in a row means something is wrong.
constexpr int kAttempts = 5;

// Waits until it is worth asking again: the event may be missing or belong to somebody else, or the database may be
// abandoned. Without an event, or with one that somebody left set, asking again at once would be a busy loop.
bool AwaitInitialised(const char* name, bool toldBefore) {
    const KernelHandle initialised(OpenEventA(SYNCHRONIZE, FALSE, product::InitializedEventName(name).text));
    const DWORD wait = initialised ? WaitForSingleObject(initialised.Get(), g_timings.initialisedSlice) : WAIT_FAILED;
    const bool told = wait == WAIT_OBJECT_0;
    if (wait == WAIT_FAILED || (told && toldBefore)) Sleep(g_timings.initialisedPause);
    return told;
}

template <typename Enter> // Answer()
Answer EnterWhenInitialised(const char* name, Enter enter) {
    const DWORD start = GetTickCount();
    bool told = false;
    for (int attempt = 0; attempt < kAttempts;) {
        const Answer answer = enter();
        if (answer == Answer::UnknownDatabase) {
            ++attempt;
            continue;
        }
        if (answer != Answer::BeingInitialised) return answer;
        // A live creator that never finishes would block us, and with us every open on the machine.
        if (GetTickCount() - start >= g_timings.initialisedBound) return Answer::TimedOut;
        told = AwaitInitialised(name, told);
    }
    return Answer::UnknownDatabase;
}

} // namespace

Answer CreateOrOpenDatabase(const char* name, EnteredDatabase* entered) {
    return EnterWhenInitialised(name, [&] { return EnterDatabase(name, entered); });
}

Answer CreateOrOpenMaster(const char* printerName, EnteredPrinter* entered) {
    return EnterWhenInitialised(product::kMasterDatabase, [&] { return EnterPrinter(printerName, entered); });
}
