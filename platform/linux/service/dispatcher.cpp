// The dispatcher of a service: its status, and signals as controls.
//
// State: g_service, the one service of the process. Signals are blocked and read from a descriptor; nothing runs in a
// signal handler.
#include "base/call.h"
#include "base/descriptor.h"
#include "base/lock.h"
#include "base/steps.h"
#include "service/record.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <handleapi.h>
#include <memory>
#include <oriel_supervisor.h>
#include <poll.h>
#include <processthreadsapi.h>
#include <pthread.h>
#include <string>
#include <synchapi.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace oriel {
namespace {

std::string SocketName() {
    const char* name = secure_getenv("NOTIFY_SOCKET");
    return name != nullptr ? name : "";
}

void Send(const std::string& name, const char* line) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = name.size();
    if (length < 2 || length >= sizeof address.sun_path || (name[0] != '/' && name[0] != '@')) return;
    std::memcpy(address.sun_path, name.data(), length);
    // A name in the abstract namespace, which begins with a NUL.
    if (name[0] == '@') address.sun_path[0] = '\0';
    const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen()) return;
    sendto(socket.Get(), line, std::strlen(line), MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
}

} // namespace

void TellSupervisor(const char* line) {
    Send(SocketName(), line);
}

namespace {

struct OwnService {
    std::string name;
    std::string folded;
    LPSERVICE_MAIN_FUNCTIONA main = nullptr;
    LPHANDLER_FUNCTION handler = nullptr;
    OwnRecord record;
    SERVICE_STATUS status = {};
    bool told = false;      // the service has set a status itself
    bool mainEnded = false; // its main function has returned
    bool stopAsked = false; // by a signal, not yet passed to the service
    bool toldReady = false; // READY=1 was sent to the supervisor
    bool toldStopping = false;
    Descriptor wake; // an eventfd: wakes the dispatcher
};

// For a process that calls the dispatcher once. Never destroyed: its threads may outlive main().
constinit Lock g_serviceLock;
OwnService* g_service ORIEL_LOCK_CHECK(guarded_by(g_serviceLock)) = nullptr;

// The only status handle; not an address, since it is never looked up.
const auto kStatusHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(uintptr_t{0x4f7253});

void WakeDispatcher(const OwnService& service) {
    const uint64_t one = 1;
    // A full counter wakes just as well.
    [[maybe_unused]] const ssize_t written = write(service.wake.Get(), &one, sizeof one);
}

DWORD PublishStatus(OwnService& service, const SERVICE_STATUS& status)
    ORIEL_LOCK_CHECK(requires_capability(g_serviceLock)) {
    const DWORD state = status.dwCurrentState;
    const DWORD error = service.record.Tell(status);
    service.status = status;
    if (state == SERVICE_RUNNING && !service.toldReady) {
        TellSupervisor("READY=1");
        service.toldReady = true;
    }
    if ((state == SERVICE_STOP_PENDING || state == SERVICE_STOPPED) && !service.toldStopping) {
        TellSupervisor("STOPPING=1");
        service.toldStopping = true;
    }
    // Another process may be the service from here on.
    if (state == SERVICE_STOPPED) service.record.Release();
    WakeDispatcher(service);
    return error;
}

SERVICE_STATUS InitialStatus(DWORD state, DWORD exitCode) {
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwWin32ExitCode = exitCode;
    return status;
}

DWORD WINAPI RunMain(LPVOID parameter) {
    auto* service = static_cast<OwnService*>(parameter);
    LPSTR arguments[] = {service->name.data(), nullptr};
    service->main(1, arguments);
    LockHold hold(g_serviceLock);
    service->mainEnded = true;
    WakeDispatcher(*service);
    return 0;
}

// SIGTERM and SIGINT, blocked in this thread and in those that it starts.
class BlockedSignals {
public:
    BlockedSignals() {
        sigemptyset(&m_signals);
        sigaddset(&m_signals, SIGTERM);
        sigaddset(&m_signals, SIGINT);
        pthread_sigmask(SIG_BLOCK, &m_signals, &m_before);
        m_descriptor = Descriptor(signalfd(-1, &m_signals, SFD_CLOEXEC | SFD_NONBLOCK));
    }
    ~BlockedSignals() {
        Take(); // a repeated signal on the way out needs no further answer
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

    int Get() const { return m_descriptor.Get(); }
    // True when there was one.
    bool Take() {
        signalfd_siginfo signal;
        bool any = false;
        while (read(m_descriptor.Get(), &signal, sizeof signal) == ssize_t{sizeof signal})
            any = true;
        return any;
    }

private:
    sigset_t m_signals;
    sigset_t m_before;
    Descriptor m_descriptor;
};

// Takes the service's name for this process.
DWORD BecomeService(const SERVICE_TABLE_ENTRYA* table, OwnService** result) {
    if (table == nullptr || table[0].lpServiceName == nullptr || table[0].lpServiceProc == nullptr ||
        table[1].lpServiceName != nullptr || table[1].lpServiceProc != nullptr)
        return ERROR_INVALID_DATA;
    auto service = std::make_unique<OwnService>();
    service->name = table[0].lpServiceName;
    service->folded = FoldServiceName(table[0].lpServiceName);
    if (service->folded.empty()) return ERROR_INVALID_NAME;
    WatchForFork();
    LockHold hold(g_serviceLock);
    if (g_service != nullptr) return ERROR_SERVICE_ALREADY_RUNNING;
    service->main = table[0].lpServiceProc;
    service->status = InitialStatus(SERVICE_START_PENDING, NO_ERROR);
    service->wake = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!service->wake.IsOpen()) return SystemError(errno);
    const DWORD error = service->record.Acquire(service->folded, service->status);
    if (error != ERROR_SUCCESS) return error;
    *result = g_service = service.release();
    return ERROR_SUCCESS;
}

// What the dispatcher has to do next.
struct Duty {
    bool stopped;
    LPHANDLER_FUNCTION stopHandler; // called with the stop control
};

Duty NextDuty(OwnService& service) {
    LockHold hold(g_serviceLock);
    if (service.mainEnded && !service.told)
        PublishStatus(service, InitialStatus(SERVICE_STOPPED, ERROR_PROCESS_ABORTED));
    if (service.status.dwCurrentState == SERVICE_STOPPED) return {true, nullptr};
    const bool accepts = service.handler != nullptr && service.status.dwCurrentState == SERVICE_RUNNING &&
                         (service.status.dwControlsAccepted & SERVICE_ACCEPT_STOP) != 0;
    if (!service.stopAsked || !accepts) return {false, nullptr};
    service.stopAsked = false;
    return {false, service.handler};
}

void Dispatch(OwnService& service, BlockedSignals& signals) {
    for (;;) {
        const Duty duty = NextDuty(service);
        if (duty.stopped) return;
        if (duty.stopHandler != nullptr) {
            duty.stopHandler(SERVICE_CONTROL_STOP);
            continue;
        }
        // For as long as the service runs.
        pollfd ready[] = {{signals.Get(), POLLIN, 0}, {service.wake.Get(), POLLIN, 0}};
        if (poll(ready, 2, -1) < 0) continue;
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t drained = read(service.wake.Get(), &count, sizeof count);
        if (!signals.Take()) continue;
        LockHold hold(g_serviceLock);
        service.stopAsked = true;
    }
}

bool IsPublishable(const SERVICE_STATUS& status) {
    return status.dwServiceType == SERVICE_WIN32_OWN_PROCESS && status.dwCurrentState >= SERVICE_STOPPED &&
           status.dwCurrentState <= SERVICE_RUNNING && (status.dwControlsAccepted & ~SERVICE_ACCEPT_STOP) == 0;
}

} // namespace

// A fork child is not the service, and must not keep its files open.
const ForkSteps kServiceFork{[]() ORIEL_LOCK_CHECK(no_thread_safety_analysis) { g_serviceLock.Acquire(); },
                             []() ORIEL_LOCK_CHECK(no_thread_safety_analysis) { g_serviceLock.Release(); },
                             []() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
                                 if (g_service != nullptr) g_service->record.Release();
                                 g_serviceLock.Release();
                             }};

bool OwnStatus(const std::string& folded, SERVICE_STATUS* status) {
    LockHold hold(g_serviceLock);
    return g_service != nullptr && g_service->record.Holds(folded, status);
}

} // namespace oriel

using namespace oriel;

void WINAPI OrielTellSupervisor(LPCSTR line) {
    // Never destroyed: threads may outlive main().
    static const std::string& name = *new std::string(SocketName());
    unsetenv("NOTIFY_SOCKET");
    if (line != nullptr) Send(name, line);
}

BOOL WINAPI StartServiceCtrlDispatcherA(const SERVICE_TABLE_ENTRYA* table) {
    BlockedSignals signals;
    if (signals.Get() < 0) return Succeeds(ERROR_NO_SYSTEM_RESOURCES);
    OwnService* service = nullptr;
    DWORD error = CodeCall([&] { return BecomeService(table, &service); });
    if (error != ERROR_SUCCESS) return Succeeds(error);
    const HANDLE thread = CreateThread(nullptr, 0, RunMain, service, 0, nullptr);
    if (thread == nullptr) {
        error = GetLastError();
        LockHold hold(g_serviceLock);
        PublishStatus(*service, InitialStatus(SERVICE_STOPPED, error));
        return Succeeds(error);
    }
    Dispatch(*service, signals);
    // The main function usually only has to return; the exit of the process should not overtake that.
    constexpr DWORD kLastStepsMs = 2000;
    WaitForSingleObject(thread, kLastStepsMs);
    CloseHandle(thread);
    return TRUE;
}

SERVICE_STATUS_HANDLE WINAPI RegisterServiceCtrlHandlerA(LPCSTR name, LPHANDLER_FUNCTION handler) {
    const DWORD error = CodeCall([&]() -> DWORD {
        if (name == nullptr || handler == nullptr) return ERROR_INVALID_PARAMETER;
        const std::string folded = FoldServiceName(name);
        LockHold hold(g_serviceLock);
        if (g_service == nullptr || g_service->folded != folded) return ERROR_SERVICE_NOT_IN_EXE;
        g_service->handler = handler;
        return ERROR_SUCCESS;
    });
    return Succeeds(error) ? kStatusHandle : nullptr;
}

BOOL WINAPI SetServiceStatus(SERVICE_STATUS_HANDLE service, LPSERVICE_STATUS status) {
    return Succeeds(CodeCall([&]() -> DWORD {
        LockHold hold(g_serviceLock);
        if (service != kStatusHandle || g_service == nullptr || g_service->status.dwCurrentState == SERVICE_STOPPED)
            return ERROR_INVALID_HANDLE;
        if (status == nullptr || !IsPublishable(*status)) return ERROR_INVALID_DATA;
        g_service->told = true;
        return PublishStatus(*g_service, *status);
    }));
}
