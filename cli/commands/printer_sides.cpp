// Processes of the printer sides. State: the object's.
#include "commands/printer_sides.h"

#include "base/child_program.h"
#include "base/output.h"
#include "base/printers.h"
#include "base/product.h"
#include "base/text.h"

#include "product/object_names.h"

#include <algorithm>

namespace {

constexpr DWORD kSettingsMs = 2000; // between checks which printers have a device
constexpr DWORD kStopMs = 5000;     // for those that were asked to end
constexpr DWORD kOpenMs = 30000;    // for a printer's first manager to create its database

} // namespace

KernelHandle NewStopEvent(const char* what, std::string& name) {
    constexpr int kAttempts = 64; // names that others took first
    static DWORD number = 0;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        name = SharedName(("TVORSQD:Stop" + std::string(what) + ":" + std::to_string(GetCurrentProcessId()) + ":" +
                           std::to_string(++number))
                              .c_str());
        KernelHandle event(CreateEventA(nullptr, TRUE, FALSE, name.c_str()));
        if (event && GetLastError() != ERROR_ALREADY_EXISTS) return event;
    }
    return {};
}

PrinterSides::PrinterSides(TellPrinterSideNews tell) : m_tell(std::move(tell)) {
    ForgetAllSideStates(); // of a process that was killed
}

PrinterSides::~PrinterSides() {
    for (Side& side : m_sides)
        AskToEnd(side);
    const DWORD start = GetTickCount();
    for (Side& side : m_sides) {
        if (!side.process) continue;
        const DWORD waited = std::min(GetTickCount() - start, kStopMs);
        if (WaitForSingleObject(side.process.Get(), kStopMs - waited) == WAIT_OBJECT_0) continue;
        TerminateProcess(side.process.Get(), 1);
    }
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
    if (side.leaving || !side.process) return;
    side.leaving = true;
    side.dueAt = GetTickCount() + kStopMs;
    SetEvent(side.stop.Get());
}

// New printers get a side. Printers that are gone or have another device lose theirs.
void PrinterSides::ReadSettings() {
    if (m_settingsRead && GetTickCount() - m_settingsReadAt < kSettingsMs) return;
    m_settingsRead = true;
    m_settingsReadAt = GetTickCount();
    const std::vector<Printer> printers = PrintersWithDevice();
    const auto isConfigured = [&](const Side& side) {
        return std::any_of(printers.begin(), printers.end(), [&](const Printer& printer) {
            return printer.name == side.printer && printer.device == side.device && printer.port == side.port;
        });
    };
    for (Side& side : m_sides)
        if (!isConfigured(side)) AskToEnd(side);
    std::erase_if(m_sides, [&](const Side& side) {
        const bool gone = !side.process && !isConfigured(side);
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

void PrinterSides::StartSide(Side& side) {
    const std::optional<std::string> directory = InstalledDirectory();
    const std::string program = directory.value_or("") + kPrinterSideProgram;
    std::string stop;
    side.stop = NewStopEvent("PrinterSide", stop);
    std::string commandLine = Quoted(program) + " --printer " + Quoted(side.printer) + " --device " +
                              Quoted(side.device) + " --owner " + std::to_string(GetCurrentProcessId()) +
                              " --stop-event " + Quoted(stop);
    if (!side.port.empty()) commandLine += " --port " + Quoted(side.port);
    side.restart.Began();
    side.resting = false;
    if (side.stop) side.process = StartProgram(program, commandLine);
    if (!side.process) {
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

// A side that ended with 0 was asked to end, as all managers of the machine can be. It starts again when a manager
// opens its printer and sets the event; without the event, at once.
void PrinterSides::NoteEnd(Side& side) {
    DWORD code = 0;
    GetExitCodeProcess(side.process.Get(), &code);
    side.process.Reset();
    side.stop.Reset();
    if (side.leaving) {
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
    for (Side& side : m_sides) {
        if (!side.process) continue;
        if (WaitForSingleObject(side.process.Get(), 0) == WAIT_OBJECT_0) {
            NoteEnd(side);
            if (side.leaving) m_settingsRead = false; // its printer may have another device
        } else if (side.leaving && HasPassed(side.dueAt)) {
            TerminateProcess(side.process.Get(), 1);
        }
    }
    ReadSettings();
    for (Side& side : m_sides) {
        if (!side.leaving) OpenOnce(side.printer);
        if (side.process || !HasPassed(side.dueAt)) continue;
        if (side.resting) {
            const bool asked = !side.opened || WaitForSingleObject(side.opened.Get(), 0) == WAIT_OBJECT_0;
            if (!asked) continue;
            side.opened.Reset();
        }
        StartSide(side);
    }
}
