// TVSDBN.EXE, the status database service: the Windows service "TVORSDB". It keeps all databases in memory and serves
// them over the interface of product/interface.h until it is asked to stop. State: the handle of its status, the stop
// event, and how it ended.
#include "associations.h"
#include "clients.h"
#include "forwarding.h"
#include "procedures.h"
#include "publication.h"
#include "signals.h"

#include "product/guards.h"
#include "product/log.h"
#include "product/object_names.h"

#include <algorithm>
#include <iterator>
#include <stdio.h>

using namespace product;

namespace {

// A start or a stop that takes longer than this has failed, in milliseconds.
constexpr DWORD kWaitHintMs = 10000;

SERVICE_STATUS_HANDLE g_serviceHandle = nullptr;
HANDLE g_stopEvent = nullptr;
DWORD g_exitCode = ERROR_SUCCESS;

void ReportState(DWORD state) {
    const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    status.dwWin32ExitCode = g_exitCode;
    status.dwCheckPoint = pending ? 1 : 0;
    status.dwWaitHint = pending ? kWaitHintMs : 0;
    SetServiceStatus(g_serviceHandle, &status);
}

VOID WINAPI HandleControl(DWORD control) {
    if (control == SERVICE_CONTROL_STOP) SetEvent(g_stopEvent);
}

// The run-time's text parameters are not const, though it only reads them.
RPC_CSTR RpcText(const char* text) {
    return reinterpret_cast<RPC_CSTR>(const_cast<char*>(text));
}

RPC_STATUS Listen() {
    RPC_STATUS status =
        RpcServerUseProtseqEpA(RpcText(kProtocolSequence), RPC_C_PROTSEQ_MAX_REQS_DEFAULT, RpcText(kEndpoint), nullptr);
    if (status != RPC_S_OK) return status;
    status = RpcServerRegisterIf2(&g_serverInterface, nullptr, nullptr, RPC_IF_ALLOW_LOCAL_ONLY,
                                  RPC_C_LISTEN_MAX_CALLS_DEFAULT, kBodySizeMax, nullptr);
    if (status != RPC_S_OK) return status;
    return RpcServerListen(1, RPC_C_LISTEN_MAX_CALLS_DEFAULT, TRUE);
}

// Watchers of an earlier service wait for this event. The service keeps it while it runs: `up` sees by it whether the
// names of the service's objects are still known.
KernelHandle MakeStartedEvent() {
    return KernelHandle{CreateEventForEveryone(ObjectName(MachineIsTerminalServer(), kServiceStartedName).text)};
}

void Pulse(const KernelHandle& event) {
    if (event) PulseEvent(event.Get());
}

// Serves until the stop event is set.
DWORD ServeClients() {
    const KernelHandle started = MakeStartedEvent(); // first: whoever reaches this service finds it
    const RPC_STATUS status = Listen();
    if (status != RPC_S_OK) return static_cast<DWORD>(status);
    ReportState(SERVICE_RUNNING);
    Pulse(started);
    WaitForSingleObject(g_stopEvent, INFINITE); // unbounded: until the service is asked to stop
    ReportState(SERVICE_STOP_PENDING);
    EndPublishing();
    RpcMgmtStopServerListening(nullptr);
    EndForwarding();
    RpcMgmtWaitServerListen(); // bounded: EndForwarding answered the calls that waited
    RpcServerUnregisterIf(&g_serverInterface, nullptr, TRUE);
    EndAssociations();
    Pulse(started); // who waits begins to look for the next service, even if that has another event of this name
    return ERROR_SUCCESS;
}

DWORD Run() {
    InitialiseHandles();
    if (!StartForwarding() || !StartSignals()) return GetLastError();
    BeginPublishing(ThisInstance());
    const DWORD result = ServeClients();
    StopForwarding();
    StopSignals();
    ReleaseDatabases();
    ReleaseNames();
    // What was charged has been given back, or we have a fault that must show.
    const bool balanced = NoClientsAreLeft() && AccountsAreBalanced();
    if (!balanced) Log(LogLevel::Error, "clients or charges are left at the end of the service");
    return result == ERROR_SUCCESS && !balanced ? RPC_S_INTERNAL_ERROR : result;
}

VOID WINAPI ServiceMain(DWORD, LPSTR*) {
    g_serviceHandle = RegisterServiceCtrlHandlerA(kServiceName, HandleControl);
    if (!g_serviceHandle) {
        g_exitCode = GetLastError();
        return;
    }
    ReportState(SERVICE_START_PENDING);
    g_exitCode = Run();
    if (g_exitCode != ERROR_SUCCESS) {
        char text[64];
        snprintf(text, sizeof text, "the service ends with system error %lu", static_cast<unsigned long>(g_exitCode));
        Log(LogLevel::Error, text);
    }
    ReportState(SERVICE_STOPPED);
}

} // namespace

int main() {
    NameLog("TVSDBN");
    g_stopEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (!g_stopEvent) return 1;
    char name[sizeof kServiceName];
    std::copy(std::begin(kServiceName), std::end(kServiceName), name); // the table's text is not const
    const SERVICE_TABLE_ENTRYA table[] = {{name, ServiceMain}, {nullptr, nullptr}};
    if (!StartServiceCtrlDispatcherA(table)) {
        Log(LogLevel::Error,
            "cannot reach the service control manager, which has to start this program; 'oriel up' does");
        return 1;
    }
    EndLog();
    return g_exitCode == ERROR_SUCCESS ? 0 : 1;
}
