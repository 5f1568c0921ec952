// Processes of the printer sides. State: the object's.
#include "commands/printer_sides.h"

#include "base/child_program.h"
#include "base/output.h"
#include "base/printers.h"
#include "base/product.h"
#include "base/text.h"

#include "product/log.h"
#include "product/object_names.h"

#include <algorithm>

namespace {

constexpr DWORD kSettingsMs = 2000;       // between checks which printers have a device
constexpr DWORD kSettingsMostMs = 8000;   // between those of many printers:
constexpr DWORD kSettingsShare = 400;     // a check takes one of so many parts of the time,
constexpr DWORD kToldShare = 20;          // or of so many while printers are added and removed
constexpr DWORD kStopMs = 5000;           // for those that were asked to end
constexpr DWORD kCrashesWithinMs = 60000; // two of them end the life of many printers in one process
constexpr DWORD kOpenMs = 30000;          // for a printer's first manager to create its database

} // namespace

KernelHandle NewObject(const std::string& begin, std::string& name,
                       const std::function<HANDLE(const char* name)>& make) {
    constexpr int kAttempts = 64; // names that others took first
    static DWORD number = 0;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        name = SharedName((begin + std::to_string(GetCurrentProcessId()) + ":" + std::to_string(++number)).c_str());
        KernelHandle object(make(name.c_str()));
        if (object && GetLastError() != ERROR_ALREADY_EXISTS) return object;
    }
    return {};
}

KernelHandle NewStopEvent(const char* what, std::string& name) {
    return NewObject(std::string("TVORSQD:Stop") + what + ":", name,
                     [](const char* text) { return CreateEventA(nullptr, TRUE, FALSE, text); });
}

PrinterSides::PrinterSides(TellPrinterSideNews tell) : m_tell(std::move(tell)) {
    ForgetAllSideStates(); // of a process that was killed
    ServiceIsNew();
}

// All names may be new too.
void PrinterSides::ServiceIsNew() {
    m_opened.clear();
    m_changed = KernelHandle(CreateEventA(nullptr, FALSE, FALSE, SharedName(product::kPrintersChangedName).c_str()));
}

PrinterSides::~PrinterSides() {
    for (Side& side : m_sides)
        AskToEnd(side);
    m_host.EndAll();
    const DWORD start = GetTickCount();
    const auto left = [&] { return kStopMs - std::min(GetTickCount() - start, kStopMs); };
    for (Side& side : m_sides)
        if (side.process && WaitForSingleObject(side.process.Get(), left()) != WAIT_OBJECT_0)
            TerminateProcess(side.process.Get(), 1);
    m_host.WaitForEnd(left());
    ForgetAllSideStates();
}

void PrinterSides::Publish(const Side& side, const PrinterSideState& state) {
    PrinterSideState full = state;
    full.printer = side.printer;
    GetSystemTime(&full.since);
    PublishSideState(full);
}

// The side answers pending requests and reports that it takes no more. One that does not end in time is killed.
void PrinterSides::AskToEnd(Side& side) {
    if (side.leaving || !side.Runs()) return;
    side.leaving = true;
    side.dueAt = GetTickCount() + kStopMs;
    if (side.process) SetEvent(side.stop.Get());
    if (side.row) m_host.End(*side.row);
}

bool PrinterSides::SettingsAreDue() {
    if (!m_settingsRead) return true;
    m_toldOfChange = m_toldOfChange || (m_changed && WaitForSingleObject(m_changed.Get(), 0) == WAIT_OBJECT_0);
    const DWORD pause = std::clamp(m_settingsCostMs * kSettingsShare, kSettingsMs, kSettingsMostMs);
    return GetTickCount() - m_settingsReadAt >=
           (m_toldOfChange ? std::min(m_settingsCostMs * kToldShare, pause) : pause);
}

// New printers get a side. Printers that are gone or have another device lose theirs.
void PrinterSides::ReadSettings() {
    if (!SettingsAreDue()) return;
    m_settingsRead = true;
    m_toldOfChange = false;
    const DWORD start = GetTickCount();
    const std::vector<Printer> printers = PrintersWithDevice();
    m_settingsReadAt = GetTickCount();
    m_settingsCostMs = m_settingsReadAt - start;
    const auto isConfigured = [&](const Side& side) {
        return std::any_of(printers.begin(), printers.end(), [&](const Printer& printer) {
            return printer.name == side.printer && printer.device == side.device && printer.port == side.port;
        });
    };
    for (Side& side : m_sides)
        if (!isConfigured(side)) AskToEnd(side);
    std::erase_if(m_sides, [&](const Side& side) {
        const bool gone = !side.Runs() && !isConfigured(side);
        if (gone) ForgetSideState(side.printer);
        return gone;
    });
    for (const Printer& printer : printers) {
        const auto isOfPrinter = [&](const Side& side) { return side.printer == printer.name; };
        if (std::any_of(m_sides.begin(), m_sides.end(), isOfPrinter)) continue;
        m_sides.push_back(
            {.printer = printer.name, .port = printer.port, .device = printer.device, .dueAt = GetTickCount()});
    }
}

// The first manager of a printer creates its database, which its printer side waits for. A separate process opens it:
// the library in this process may have been loaded before the product was installed, and then opens nothing.
void PrinterSides::OpenOnce(const std::string& printer) {
    if (std::find(m_opened.begin(), m_opened.end(), printer) != m_opened.end()) return;
    m_opened.push_back(printer);
    const std::string what = "cannot open the printer \"" + ToUtf8(printer) + "\"";
    const std::string program = OwnProgram();
    const auto list = m_accessLists.find(printer);
    const std::string options = list == m_accessLists.end() ? "" : " --access-list " + Quoted(list->second);
    const KernelHandle process = StartProgram(program, Quoted(program) + " open" + options + " -- " + Quoted(printer));
    if (!process) {
        LogFailure(SystemFailure(GetLastError(), what));
    } else if (WaitForSingleObject(process.Get(), kOpenMs) != WAIT_OBJECT_0) {
        TerminateProcess(process.Get(), 1);
        LogFailure(SystemFailure(WAIT_TIMEOUT, what));
    } // otherwise the process has printed its own error
}

void PrinterSides::OpenPrinters() {
    for (const Printer& printer : ListPrinters())
        if (!printer.driver.empty()) OpenOnce(printer.name);
}

bool PrinterSides::StartHosted(Side& side) {
    if (m_apart || !MayBeHosted(side.printer, side.port, side.device)) return false;
    side.row = m_host.Begin(side.printer, side.port, side.device);
    return side.row.has_value();
}

bool PrinterSides::StartProcess(Side& side) {
    const std::string program = InstalledDirectory().value_or("") + kPrinterSideProgram;
    std::string stop;
    side.stop = NewStopEvent("PrinterSide", stop);
    std::string commandLine = Quoted(program) + " --printer " + Quoted(side.printer) + " --device " +
                              Quoted(side.device) + " --owner " + std::to_string(GetCurrentProcessId()) +
                              " --stop-event " + Quoted(stop);
    if (!side.port.empty()) commandLine += " --port " + Quoted(side.port);
    if (side.stop) side.process = StartProgram(program, commandLine);
    return static_cast<bool>(side.process);
}

void PrinterSides::StartSide(Side& side) {
    side.restart.Began();
    side.resting = false;
    if (!StartHosted(side) && !StartProcess(side)) {
        const DWORD error = GetLastError();
        const DWORD pause = side.restart.AfterEnd();
        side.dueAt = GetTickCount() + pause;
        Publish(side, {.state = SideState::Restarting, .startFailed = true, .code = error, .pauseMs = pause});
        LogFailure(SystemFailure(error, "cannot start the printer side of \"" + ToUtf8(side.printer) + "\""));
        return;
    }
    Publish(side, {.state = SideState::Running});
    m_tell({.printer = side.printer, .started = true});
}

// All printer sides of a host end with it.
void PrinterSides::TendHost() {
    const std::optional<DWORD> code = m_host.TakeEndOfAll();
    if (!code) return;
    if (*code != 0) {
        const bool again = m_crashed && GetTickCount() - m_crashedAt < kCrashesWithinMs;
        m_crashed = true;
        m_crashedAt = GetTickCount();
        if (again && !m_apart)
            product::Log(
                product::LogLevel::Warning,
                "the process of all printers on the network has ended twice within a minute; until the product is "
                "started again each of them has a process of its own");
        m_apart = m_apart || again;
    }
    for (Side& side : m_sides) {
        if (!side.row) continue;
        side.row.reset();
        NoteEnd(side, *code);
    }
}

// The exit code of a side that has ended.
std::optional<DWORD> PrinterSides::TakeEnd(Side& side) {
    std::optional<DWORD> code;
    if (side.process && WaitForSingleObject(side.process.Get(), 0) == WAIT_OBJECT_0) {
        DWORD ended = 0;
        GetExitCodeProcess(side.process.Get(), &ended);
        code = ended;
    } else if (side.row) {
        code = m_host.TakeEnd(*side.row);
    }
    if (!code) return code;
    side.process.Reset();
    side.stop.Reset();
    side.row.reset();
    return code;
}

// A side that ended with 0 was asked to end, as all managers of the machine can be. It starts again when a manager
// opens its printer and sets the event; without the event, at once.
void PrinterSides::NoteEnd(Side& side, DWORD code) {
    if (side.leaving) {
        m_settingsRead = false; // its printer may have another device
        m_tell({.printer = side.printer, .code = code});
        return;
    }
    side.resting = code == 0;
    const DWORD pause = side.resting ? 0 : side.restart.AfterEnd();
    side.dueAt = GetTickCount() + pause;
    if (side.resting) {
        const std::string name = product::OpenedEventName(product::MachineIsTerminalServer(), side.printer).text;
        side.opened = KernelHandle(product::CreateEventForEveryone(name.c_str()));
        if (side.opened) ResetEvent(side.opened.Get());
    }
    Publish(side, {.state = side.resting ? SideState::Resting : SideState::Restarting, .code = code, .pauseMs = pause});
    m_tell({.printer = side.printer, .code = code, .pauseMs = pause});
}

void PrinterSides::Tend() {
    TendHost();
    for (Side& side : m_sides) {
        if (const std::optional<DWORD> code = TakeEnd(side)) {
            NoteEnd(side, *code);
        } else if (side.process && side.leaving && HasPassed(side.dueAt)) {
            // One that shares a process is left to end when it can: the service bounds each of its calls.
            TerminateProcess(side.process.Get(), 1);
        }
    }
    m_host.EndIfUnused();
    ReadSettings();
    for (Side& side : m_sides) {
        if (!side.leaving) OpenOnce(side.printer);
        if (side.Runs() || !HasPassed(side.dueAt)) continue;
        if (side.resting) {
            const bool asked = !side.opened || WaitForSingleObject(side.opened.Get(), 0) == WAIT_OBJECT_0;
            if (!asked) continue;
            side.opened.Reset();
        }
        StartSide(side);
    }
}
