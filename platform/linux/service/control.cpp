// Starting services and asking them to stop: calls that wait for another process, up to 30 seconds as on Windows. No
// state.
#include "base/call.h"
#include "base/futex.h"
#include "service/record.h"

#include <cerrno>
#include <csignal>
#include <handleapi.h>
#include <processthreadsapi.h>
#include <synchapi.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>
#include <winreg.h>

namespace oriel {
namespace {

constexpr DWORD kLongestWaitMs = 30000;
constexpr DWORD kPollMs = 2;

// The configured command line, and whether the service may be started.
DWORD ReadConfiguration(const std::string& name, std::vector<char>* commandLine) {
    HKEY key = nullptr;
    LSTATUS status = RegOpenKeyExA(HKEY_LOCAL_MACHINE, ServiceKeyPath(name).c_str(), 0, KEY_QUERY_VALUE, &key);
    if (status == ERROR_FILE_NOT_FOUND) return ERROR_SERVICE_DOES_NOT_EXIST;
    if (status != ERROR_SUCCESS) return static_cast<DWORD>(status);
    constexpr DWORD kLongestCommandLine = 32767;
    commandLine->resize(kLongestCommandLine);
    DWORD type = 0;
    DWORD size = kLongestCommandLine;
    status = RegQueryValueExA(key, "ImagePath", nullptr, &type, reinterpret_cast<LPBYTE>(commandLine->data()), &size);
    DWORD start = SERVICE_DEMAND_START;
    DWORD startSize = sizeof start;
    DWORD startType = REG_DWORD;
    RegQueryValueExA(key, "Start", nullptr, &startType, reinterpret_cast<LPBYTE>(&start), &startSize);
    RegCloseKey(key);
    if (status == ERROR_FILE_NOT_FOUND) return ERROR_SERVICE_DOES_NOT_EXIST;
    if (status != ERROR_SUCCESS) return static_cast<DWORD>(status);
    if (type != REG_SZ && type != REG_EXPAND_SZ) return ERROR_INVALID_DATA;
    if (startType == REG_DWORD && start == SERVICE_DISABLED) return ERROR_SERVICE_DISABLED;
    commandLine->resize(size);
    commandLine->push_back('\0');
    return ERROR_SUCCESS;
}

struct Launch {
    std::string folded;
    DWORD lastProcess = 0; // who told the service's status before
    PROCESS_INFORMATION process = {};
};

DWORD LaunchService(const ServiceObject& service, Launch* launch) {
    launch->folded = service.folded;
    ServiceState state;
    DWORD error = ReadServiceState(service.folded, &state);
    if (error != ERROR_SUCCESS) return error;
    if (state.running) return ERROR_SERVICE_ALREADY_RUNNING;
    launch->lastProcess = state.lastProcess;
    std::vector<char> commandLine;
    error = ReadConfiguration(service.name, &commandLine);
    if (error != ERROR_SUCCESS) return error;
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    // A session of its own: the Ctrl-C of the terminal is for whoever starts the service.
    if (!CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, FALSE, CREATE_NEW_CONSOLE, nullptr, nullptr,
                        &startup, &launch->process))
        return GetLastError();
    CloseHandle(launch->process.hThread);
    return ERROR_SUCCESS;
}

// True when the process, or one that it started, has reached its dispatcher.
DWORD WaitForDispatcher(const Launch& launch) {
    // Another process is the service: one that ours started, or one that was faster; ours then ends soon.
    constexpr DWORD kOthersMs = 1000;
    const int64_t deadline = DeadlineAfter(kLongestWaitMs);
    int64_t othersDeadline = kNever;
    for (;;) {
        const bool ended = WaitForSingleObject(launch.process.hProcess, kPollMs) == WAIT_OBJECT_0;
        ServiceState state;
        const DWORD error = CodeCall([&] { return ReadServiceState(launch.folded, &state); });
        if (error != ERROR_SUCCESS) return error;
        // A service that stopped again quickly has started too.
        const bool ours = state.lastProcess == launch.process.dwProcessId;
        if (ours && (state.running || launch.lastProcess != state.lastProcess)) return ERROR_SUCCESS;
        if (ended) return state.running ? ERROR_SERVICE_ALREADY_RUNNING : ERROR_PROCESS_ABORTED;
        if (state.running && othersDeadline == kNever) othersDeadline = DeadlineAfter(kOthersMs);
        if (state.running && MonotonicNs() >= othersDeadline) return ERROR_SUCCESS;
        if (MonotonicNs() >= deadline) return ERROR_SERVICE_REQUEST_TIMEOUT;
    }
}

DWORD SignalService(const std::string& folded, const ServiceState& state) {
    if (state.process == getpid()) return kill(getpid(), SIGTERM) == 0 ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, state.process, 0)));
    if (!process.IsOpen()) return errno == ESRCH ? ERROR_SERVICE_NOT_ACTIVE : ERROR_ACCESS_DENIED;
    // The process id may have been reused before it was opened; the current lock holder had the lock all the time.
    ServiceState now;
    const DWORD error = ReadServiceState(folded, &now);
    if (error != ERROR_SUCCESS) return error;
    if (!now.running || now.process != state.process) return ERROR_SERVICE_NOT_ACTIVE;
    if (syscall(SYS_pidfd_send_signal, process.Get(), SIGTERM, nullptr, 0) == 0) return ERROR_SUCCESS;
    return errno == ESRCH ? ERROR_SERVICE_NOT_ACTIVE : ERROR_ACCESS_DENIED;
}

// status: the status before the control.
DWORD AskToStop(const std::string& folded, LPSERVICE_STATUS status) {
    ServiceState state;
    DWORD error = ReadServiceState(folded, &state);
    if (error != ERROR_SUCCESS) return error;
    *status = state.status;
    if (!state.running || state.status.dwCurrentState == SERVICE_STOPPED) return ERROR_SERVICE_NOT_ACTIVE;
    if (state.status.dwCurrentState != SERVICE_RUNNING) return ERROR_SERVICE_CANNOT_ACCEPT_CTRL;
    if ((state.status.dwControlsAccepted & SERVICE_ACCEPT_STOP) == 0) return ERROR_INVALID_SERVICE_CONTROL;
    return SignalService(folded, state);
}

DWORD WaitForReaction(const std::string& folded, LPSERVICE_STATUS status) {
    const int64_t deadline = DeadlineAfter(kLongestWaitMs);
    for (;;) {
        ServiceState state;
        const DWORD error = CodeCall([&] { return ReadServiceState(folded, &state); });
        if (error != ERROR_SUCCESS) return error;
        *status = state.status;
        if (!state.running || state.status.dwCurrentState != SERVICE_RUNNING) return ERROR_SUCCESS;
        if (MonotonicNs() >= deadline) return ERROR_SERVICE_REQUEST_TIMEOUT;
        Sleep(kPollMs);
    }
}

} // namespace
} // namespace oriel

using namespace oriel;

BOOL WINAPI StartServiceA(SC_HANDLE service, DWORD argumentCount, LPCSTR*) {
    Launch launch;
    DWORD error = CodeCall([&]() -> DWORD {
        const HandleUse<ServiceObject> use(service, kServiceType, SERVICE_START);
        if (!use) return GetLastError();
        if (argumentCount != 0) return ERROR_NOT_SUPPORTED;
        return LaunchService(*use.Get(), &launch);
    });
    if (error != ERROR_SUCCESS) return Succeeds(error);
    error = WaitForDispatcher(launch);
    // Nobody would ever find a process that hangs before it has the service's name.
    if (error == ERROR_SERVICE_REQUEST_TIMEOUT) TerminateProcess(launch.process.hProcess, error);
    CloseHandle(launch.process.hProcess);
    return Succeeds(error);
}

BOOL WINAPI ControlService(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status) {
    std::string folded;
    SERVICE_STATUS now = {};
    DWORD error = CodeCall([&]() -> DWORD {
        if (status == nullptr) return ERROR_INVALID_PARAMETER;
        if (control != SERVICE_CONTROL_STOP && control != SERVICE_CONTROL_INTERROGATE) return ERROR_INVALID_PARAMETER;
        const bool stop = control == SERVICE_CONTROL_STOP;
        const HandleUse<ServiceObject> use(service, kServiceType, stop ? SERVICE_STOP : SERVICE_INTERROGATE);
        if (!use) return GetLastError();
        folded = use->folded;
        if (stop) return AskToStop(folded, &now);
        ServiceState state;
        const DWORD unread = ReadServiceState(folded, &state);
        if (unread != ERROR_SUCCESS) return unread;
        now = state.status;
        return state.running ? ERROR_SUCCESS : ERROR_SERVICE_NOT_ACTIVE;
    });
    if (error == ERROR_SUCCESS && control == SERVICE_CONTROL_STOP) error = WaitForReaction(folded, &now);
    // As on Windows, the status is returned with these errors too.
    if (error == ERROR_SUCCESS || error == ERROR_SERVICE_NOT_ACTIVE || error == ERROR_INVALID_SERVICE_CONTROL ||
        error == ERROR_SERVICE_CANNOT_ACCEPT_CTRL)
        *status = now;
    return Succeeds(error);
}
