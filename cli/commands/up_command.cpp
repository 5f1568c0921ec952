// up: the product's start-up process. It registers the installation if it is not registered, starts the status database
// service, signals that the product is initialised, and starts a printer side for each printer that has a device, and
// the views of the setting "Views". It keeps all of them running, and stops them on Ctrl-C.
//
// State: g_stop, set when the user wants to stop.
#include "commands/commands.h"

#include "base/interrupt.h"
#include "base/layer.h"
#include "base/output.h"
#include "base/printers.h"
#include "base/product.h"
#include "base/registry.h"
#include "base/service_client.h"
#include "commands/demo_printer.h"
#include "commands/printer_sides.h"
#include "commands/restart_pause.h"
#include "commands/view_programs.h"

#include "base/text.h"
#include "product/log.h"
#include "product/object_names.h"

#include <algorithm>

namespace {

constexpr DWORD kStartMs = 30000; // for the service to run, and to stop
constexpr DWORD kPollMs = 20;     // while it is starting or stopping
constexpr DWORD kWatchMs = 100;   // while it runs
constexpr DWORD kSureMs = 20;     // to see again that the event of the service is missing
constexpr DWORD kTidyMs = 4000;   // between removals of what others left

HANDLE g_stop = nullptr;

// ---- output

struct Teller {
    bool quiet;

    // fields: further fields of the JSON line.
    void Tell(const char* event, const std::string& text, Json fields = Json::object()) const {
        if (quiet) return;
        if (!g_output.json) {
            PrintLine(text);
            return;
        }
        Json line = {{"event", event}};
        line.update(fields);
        PrintJsonLine(line);
    }
};

// ---- the installation

void RegisterInstallation(const Teller& teller) {
    const std::string own = OwnDirectory();
    std::optional<std::string> directory = InstalledDirectory();
    if (!directory) {
        const LSTATUS status = WriteText(HKEY_LOCAL_MACHINE, kProductKey, kDirectoryValue, own);
        if (status != ERROR_SUCCESS)
            throw SystemFailure(static_cast<uint32_t>(status), "cannot register the installation in the registry");
        directory = own;
        teller.Tell("registered", "registered the installation " + Printable(ShownPath(ToUtf8(own))),
                    {{"directory", ShownPath(ToUtf8(own))}});
    }
    if (FileExists((*directory + kServiceProgram).c_str())) return;
    Failure failure{Exit::NoService,
                    "the installation directory " + ShownPath(ToUtf8(*directory)) + " has no " + kServiceProgram, "",
                    "install the product there"};
    if (*directory != own && FileExists((own + kServiceProgram).c_str())) {
        failure.next = R"(if it moved, register this one: oriel reg set 'HKLM\)" + std::string(kProductKey) + "' " +
                       kDirectoryValue + " '" + ToUtf8(own) + "'";
    }
    throw failure;
}

// ---- the service

SERVICE_STATUS Query(const ServiceHandle& service) {
    SERVICE_STATUS status{};
    if (!QueryServiceStatus(service.Get(), &status))
        throw SystemFailure(GetLastError(), "cannot ask for the state of the service");
    return status;
}

// Polls until the service has the state, fails to reach it, or the user wants to stop. True when it has the state.
bool WaitForState(const ServiceHandle& service, DWORD pending, DWORD wanted, bool stoppable) {
    const DWORD started = GetTickCount();
    for (;;) {
        const SERVICE_STATUS status = Query(service);
        if (status.dwCurrentState == wanted) return true;
        if (status.dwCurrentState != pending) {
            const DWORD code = status.dwWin32ExitCode ? status.dwWin32ExitCode : ERROR_SERVICE_NOT_ACTIVE;
            Failure failure = SystemFailure(code, "the status database service did not start");
            failure.exitCode = Exit::NoService;
            throw failure;
        }
        if (GetTickCount() - started > kStartMs) {
            throw SystemFailure(ERROR_SERVICE_REQUEST_TIMEOUT, wanted == SERVICE_RUNNING
                                                                   ? "the status database service is still starting"
                                                                   : "the status database service is still stopping");
        }
        if (!stoppable) {
            Sleep(kPollMs);
        } else if (WaitForSingleObject(g_stop, kPollMs) == WAIT_OBJECT_0) {
            return false;
        }
    }
}

std::string ServiceImage() {
    return "\"" + *InstalledDirectory() + kServiceProgram + "\"";
}

ServiceHandle CreateTheService() {
    const std::string what = "cannot create the service " + std::string(kServiceName);
    const ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE));
    if (!manager) throw SystemFailure(GetLastError(), what);
    ServiceHandle service(CreateServiceA(manager.Get(), kServiceName, kServiceDisplayName,
                                         SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS, SERVICE_WIN32_OWN_PROCESS,
                                         SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, ServiceImage().c_str(), nullptr,
                                         nullptr, nullptr, nullptr, nullptr));
    if (!service) throw SystemFailure(GetLastError(), what);
    return service;
}

// The service. It is created when it is missing, and again when it is stopped and its program lies elsewhere.
ServiceHandle TheService(const Teller& teller) {
    const ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) throw SystemFailure(GetLastError(), "cannot reach the service control manager");
    constexpr DWORD kAccess = SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS;
    ServiceHandle service(OpenServiceA(manager.Get(), kServiceName, kAccess));
    if (!service && GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST)
        throw SystemFailure(GetLastError(), "cannot open the service " + std::string(kServiceName));
    if (service) {
        const std::string image = ReadText(HKEY_LOCAL_MACHINE, kServiceKey, "ImagePath").value_or("");
        if (image == ServiceImage() || Query(service).dwCurrentState != SERVICE_STOPPED) return service;
        const ServiceHandle old(OpenServiceA(manager.Get(), kServiceName, DELETE));
        if (!old || !DeleteService(old.Get()))
            throw SystemFailure(GetLastError(), "cannot replace the service " + std::string(kServiceName));
    }
    service = CreateTheService();
    teller.Tell("service-created", "created the service " + std::string(kServiceName), {{"service", kServiceName}});
    return service;
}

// True when the service runs, false when the user wanted to stop first.
bool Start(const ServiceHandle& service) {
    if (!StartServiceA(service.Get(), 0, nullptr) && GetLastError() != ERROR_SERVICE_ALREADY_RUNNING)
        throw SystemFailure(GetLastError(), "cannot start the status database service");
    return WaitForState(service, SERVICE_START_PENDING, SERVICE_RUNNING, true);
}

void Stop(const ServiceHandle& service) {
    SERVICE_STATUS status{};
    if (!ControlService(service.Get(), SERVICE_CONTROL_STOP, &status)) {
        if (GetLastError() == ERROR_SERVICE_NOT_ACTIVE) return;
        throw SystemFailure(GetLastError(), "cannot stop the status database service");
    }
    WaitForState(service, SERVICE_STOP_PENDING, SERVICE_STOPPED, false);
}

// The run of the service that an `up` has started and not stopped, which may have been killed: the next one takes over.
constexpr char kStartedValue[] = "StartedInstance";

void RememberStart() {
    const LSTATUS status = WriteText(HKEY_LOCAL_MACHINE, kProductKey, kStartedValue, RunningInstance());
    if (status != ERROR_SUCCESS)
        LogFailure(SystemFailure(static_cast<uint32_t>(status), "cannot note that the service was started here"));
}

bool WasStartedByAnother() {
    const std::string started = ReadText(HKEY_LOCAL_MACHINE, kProductKey, kStartedValue).value_or("");
    return !started.empty() && started == RunningInstance();
}

void StopIfPossible(const ServiceHandle& service) {
    try {
        Stop(service);
    } catch (const Failure&) {
    }
}

void TellOfPrinterSide(const Teller& teller, const PrinterSideNews& news) {
    const std::string printer = ToUtf8(news.printer);
    const std::string side = "the printer side of \"" + Printable(printer) + "\" ";
    if (news.started) {
        teller.Tell("printer-side-started", side + "runs", {{"printer", printer}});
        return;
    }
    const std::string text = side + (news.pauseMs != 0 ? "ended" : "ended, as it was asked to");
    if (news.pauseMs != 0)
        LogFailure({Exit::False, text, "", "starting it again in " + std::to_string(news.pauseMs) + " ms", news.code});
    teller.Tell("printer-side-ended", text, {{"printer", printer}, {"code", news.code}, {"pauseMs", news.pauseMs}});
}

void TellOfView(const Teller& teller, const ViewNews& news) {
    const std::string command = ToUtf8(news.command);
    const std::string view = "the view \"" + Printable(command) + "\" ";
    if (news.started) {
        teller.Tell("view-started", view + "runs", {{"command", command}});
        return;
    }
    const std::string text = view + (news.pauseMs != 0 ? "ended" : "ended, as it was asked to");
    if (news.pauseMs != 0)
        LogFailure({Exit::False, text, "", "starting it again in " + std::to_string(news.pauseMs) + " ms", news.code});
    teller.Tell("view-ended", text, {{"command", command}, {"code", news.code}, {"pauseMs", news.pauseMs}});
}

void TellOfDemoPrinter(const Teller& teller, const DemoPrinter& demo) {
    teller.Tell("demo-printer",
                "the printer \"" + demo.name + "\" plays " + Printable(demo.script) + "; try: oriel watch \"" +
                    demo.name + "\" PrinterStatus PageCount TonerLevel",
                {{"printer", demo.name}, {"script", demo.script}});
}

// Nobody else does it where there is no desktop, and where nobody prints.
void Tidy(DWORD& due) {
    if (static_cast<LONG>(GetTickCount() - due) < 0) return;
    due = GetTickCount() + kTidyMs;
    TidyDirectories();
}

// Signals that the product is initialised, until it is destroyed.
struct InitialisedSignal {
    InitialisedSignal() {
        Renew();
        if (!m_event || !SetEvent(m_event.Get()))
            throw SystemFailure(GetLastError(), "cannot signal that the product is initialised");
    }
    ~InitialisedSignal() { ResetEvent(m_event.Get()); } // others may have it open
    // True when there was no event of that name: on Linux, all named objects are new after both processes of the object
    // server were killed.
    bool Renew() {
        KernelHandle event(product::CreateEventForEveryone(SharedName(product::kProductInitialisedName).c_str()));
        if (!event) return false;
        const bool isNew = GetLastError() != ERROR_ALREADY_EXISTS;
        if (!m_event || isNew) m_event = std::move(event);
        if (isNew) SetEvent(m_event.Get());
        return isNew;
    }

private:
    KernelHandle m_event;
};

// The start-up mutex, for this user alone. Held() is false when another process has it.
struct UpMutex {
    UpMutex() { Take(); }
    void Take() {
        m_mutex = KernelHandle(CreateMutexA(nullptr, FALSE, product::kStartUpMutexName));
        if (!m_mutex && GetLastError() == ERROR_ACCESS_DENIED) return; // another user's
        if (!m_mutex) throw SystemFailure(GetLastError(), "cannot create the mutex of the start-up process");
        const DWORD wait = WaitForSingleObject(m_mutex.Get(), 0);
        m_held = wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED;
    }
    ~UpMutex() {
        if (m_held) ReleaseMutex(m_mutex.Get());
    }
    bool Held() const { return m_held; }

private:
    KernelHandle m_mutex;
    bool m_held = false;
};

// The event that the service makes as it starts, and keeps. When a running service has none, all names of the object
// server are new.
struct StartedEvent {
    // True when it was not there at the last look either: a service that is killed at this moment has none.
    bool IsMissing() {
        const bool terminalServer = product::MachineIsTerminalServer();
        m_event = KernelHandle(
            OpenEventA(SYNCHRONIZE, FALSE, product::ObjectName(terminalServer, product::kServiceStartedName).text));
        const bool was = m_missing;
        m_missing = !m_event && GetLastError() == ERROR_FILE_NOT_FOUND;
        return was && m_missing;
    }
    bool MayBeMissing() const { return m_missing; }

private:
    KernelHandle m_event; // kept: to open it again asks nobody
    bool m_missing = false;
};

// Watches the service, the printer sides and the views until the user wants to stop, and restarts what ended.
// startedHere: set when it restarted the service.
void KeepRunning(const ServiceHandle& service, const Teller& teller, PrinterSides& sides,
                 InitialisedSignal& initialised, UpMutex& mutex, bool& startedHere) {
    ViewPrograms views([&](const ViewNews& news) { TellOfView(teller, news); });
    RestartPause restart;
    StartedEvent started;
    DWORD tidyDue = GetTickCount();
    sides.Tend();
    while (WaitForSingleObject(g_stop, started.MayBeMissing() ? kSureMs : kWatchMs) != WAIT_OBJECT_0) {
        Tidy(tidyDue);
        views.Tend();
        SERVICE_STATUS status = Query(service);
        if (initialised.Renew()) mutex.Take();
        if (status.dwCurrentState == SERVICE_RUNNING && started.IsMissing()) {
            // Programs that open managers from now on get other objects than those that the service signals.
            LogFailure({Exit::NoService, "the object server was killed", "", "restarting the status database service"});
            StopIfPossible(service);
            status = Query(service);
        }
        if (status.dwCurrentState == SERVICE_RUNNING) sides.Tend();
        if (status.dwCurrentState != SERVICE_STOPPED) continue;

        const DWORD pause = restart.AfterEnd();
        LogFailure({Exit::NoService, "the status database service ended", "",
                    "starting it again in " + std::to_string(pause) + " ms", status.dwWin32ExitCode});
        teller.Tell("service-ended", "the status database service ended",
                    {{"code", status.dwWin32ExitCode}, {"pauseMs", pause}});
        if (WaitForSingleObject(g_stop, pause) == WAIT_OBJECT_0) return;
        restart.Began();
        try {
            startedHere = true;
            if (!Start(service)) return;
            RememberStart();
            sides.ServiceIsNew();
            sides.OpenPrinters();
            teller.Tell("service-started", "the status database service runs again");
        } catch (const Failure& failure) {
            LogFailure(failure);
        }
    }
}

} // namespace

Exit UpCommand(const UpOptions& options) {
    const Teller teller{options.quiet};
    product::NameLog("oriel");
    TellSupervisor("STATUS=starting");
    g_stop = TakeOverInterrupts(kStartMs);
    ClaimDirectories();

    UpMutex mutex;
    if (!mutex.Held())
        throw Failure{Exit::False, "the product is already up, in another process", "", "'oriel status' shows it"};
    RegisterInstallation(teller);
    EnsurePrintersKey();
    std::optional<DemoPrinter> demo;
    if (options.demoPrinter) {
        demo = EnsureDemoPrinter();
        TellOfDemoPrinter(teller, *demo);
    }
    const ServiceHandle service = TheService(teller);
    bool startedHere = Query(service).dwCurrentState != SERVICE_RUNNING || WasStartedByAnother();
    try {
        if (Start(service)) {
            if (startedHere) RememberStart();
            teller.Tell("service-started", "the status database service runs", {{"startedHere", startedHere}});
            PrinterSides sides([&](const PrinterSideNews& news) { TellOfPrinterSide(teller, news); });
            if (demo) sides.GiveAccessList(demo->name, demo->accessList);
            sides.OpenPrinters(); // before 'up' is reported
            InitialisedSignal initialised;
            teller.Tell("up", "the product is up; Ctrl-C stops it");
            TellSupervisor("STATUS=up");
            TellSupervisor("READY=1");
            KeepRunning(service, teller, sides, initialised, mutex, startedHere);
        }
    } catch (...) {
        // Leave nothing running that nobody looks after. Report the first failure.
        if (startedHere) StopIfPossible(service);
        throw;
    }
    TellSupervisor("STOPPING=1");
    teller.Tell("stopping", "stopping");
    if (startedHere) Stop(service);
    product::EndLog();
    teller.Tell("stopped", startedHere ? "stopped" : "stopped; the service, which ran before, still runs");
    return Exit::Done;
}
