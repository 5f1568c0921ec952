// Processes of the printer sides. State: the object's.
#include "printer_sides.h"

#include "output.h"
#include "printers.h"
#include "product.h"
#include "text.h"

#include "dblink/kernel_names.h"

#include <algorithm>

namespace {

constexpr char kPrinterSideProgram[] = "TVSPSD.EXE";
constexpr DWORD kSettingsMs = 2000; // between looks at which printers have a script
constexpr DWORD kStopMs = 5000;     // for all of them to end
constexpr DWORD kOpenMs = 30000;    // for a printer's first manager to make its database

// A word of a command line as the C run-time divides it.
std::string Quoted(const std::string& word) {
    std::string quoted = "\"";
    size_t backslashes = 0;
    for (const char c : word) {
        if (c == '"') quoted.append(backslashes + 1, '\\');
        backslashes = c == '\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    quoted.append(backslashes, '\\');
    return quoted + '"';
}

// Starts a program with that command line; empty when it cannot, which the last error then tells.
KernelHandle StartProgram(const std::string& program, std::string commandLine) {
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION information{};
    if (!CreateProcessA(program.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &information))
        return {};
    CloseHandle(information.hThread);
    return KernelHandle(information.hProcess);
}

bool HasPassed(DWORD due) {
    return static_cast<LONG>(GetTickCount() - due) >= 0;
}

} // namespace

PrinterSides::PrinterSides(TellPrinterSideNews tell) : m_tell(std::move(tell)) {
    const std::string name = SharedName(("TVORSQD:StopPrinterSides:" + std::to_string(GetCurrentProcessId())).c_str());
    m_stop = KernelHandle(dblink::CreateEventForEveryone(name.c_str()));
    if (!m_stop) throw SystemFailure(GetLastError(), "cannot create the event that ends the printer sides");
    ResetEvent(m_stop.Get()); // of another process that had this number
}

PrinterSides::~PrinterSides() {
    SetEvent(m_stop.Get());
    const DWORD start = GetTickCount();
    for (Side& side : m_sides) {
        if (!side.process) continue;
        const DWORD waited = std::min(GetTickCount() - start, kStopMs);
        if (WaitForSingleObject(side.process.Get(), kStopMs - waited) == WAIT_OBJECT_0) continue;
        TerminateProcess(side.process.Get(), 1);
    }
}

// New printers get a side, those that are gone or have another script lose theirs.
void PrinterSides::ReadSettings() {
    if (m_settingsRead && GetTickCount() - m_settingsReadAt < kSettingsMs) return;
    m_settingsRead = true;
    m_settingsReadAt = GetTickCount();
    const std::vector<Printer> printers = ListPrinters();
    const auto isConfigured = [&](const Side& side) {
        return std::any_of(printers.begin(), printers.end(), [&](const Printer& printer) {
            return printer.name == side.printer && printer.script == side.script && printer.port == side.port;
        });
    };
    for (Side& side : m_sides)
        if (!isConfigured(side) && side.process) TerminateProcess(side.process.Get(), 0);
    std::erase_if(m_sides, [&](const Side& side) { return !isConfigured(side); });
    for (const Printer& printer : printers) {
        const auto isOfPrinter = [&](const Side& side) { return side.printer == printer.name; };
        if (printer.script.empty() || std::any_of(m_sides.begin(), m_sides.end(), isOfPrinter)) continue;
        m_sides.push_back(
            {.printer = printer.name, .port = printer.port, .script = printer.script, .dueAt = GetTickCount()});
    }
}

// The first manager of a printer makes its database, which the printer side waits for. A process of its own opens it:
// the library in this one may have been loaded before the product was installed, and then opens nothing.
void PrinterSides::OpenOnce(const Side& side) {
    if (std::find(m_opened.begin(), m_opened.end(), side.printer) != m_opened.end()) return;
    m_opened.push_back(side.printer);
    const std::string what = "cannot open the printer \"" + ToUtf8(side.printer) + "\" for its printer side";
    const std::string program = OwnProgram();
    const KernelHandle process = StartProgram(program, Quoted(program) + " open -- " + Quoted(side.printer));
    if (!process) {
        PrintError(SystemFailure(GetLastError(), what));
    } else if (WaitForSingleObject(process.Get(), kOpenMs) != WAIT_OBJECT_0) {
        TerminateProcess(process.Get(), 1);
        PrintError(SystemFailure(WAIT_TIMEOUT, what));
    } // else it has told itself what went wrong
}

void PrinterSides::StartSide(Side& side) {
    const std::optional<std::string> directory = InstalledDirectory();
    const std::string program = directory.value_or("") + kPrinterSideProgram;
    std::string commandLine = Quoted(program) + " --printer " + Quoted(side.printer) + " --script " +
                              Quoted(side.script) + " --owner " + std::to_string(GetCurrentProcessId());
    if (!side.port.empty()) commandLine += " --port " + Quoted(side.port);
    side.restart.Began();
    side.process = StartProgram(program, commandLine);
    if (!side.process) {
        PrintError(SystemFailure(GetLastError(), "cannot start the printer side of \"" + ToUtf8(side.printer) + "\""));
        side.dueAt = GetTickCount() + side.restart.AfterEnd();
        return;
    }
    m_tell({.printer = side.printer, .started = true});
}

void PrinterSides::NoteEnd(Side& side) {
    DWORD code = 0;
    GetExitCodeProcess(side.process.Get(), &code);
    side.process.Reset();
    side.stopped = code == 0;
    const DWORD pause = side.stopped ? 0 : side.restart.AfterEnd();
    side.dueAt = GetTickCount() + pause;
    m_tell({.printer = side.printer, .code = code, .pauseMs = pause});
}

void PrinterSides::Tend() {
    ReadSettings();
    for (Side& side : m_sides) {
        OpenOnce(side);
        if (side.process && WaitForSingleObject(side.process.Get(), 0) == WAIT_OBJECT_0) NoteEnd(side);
        if (!side.process && !side.stopped && HasPassed(side.dueAt)) StartSide(side);
    }
}
