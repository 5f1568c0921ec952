// printers, printers add, printers remove.
#include "commands.h"

#include "child_program.h"
#include "files.h"
#include "opened_printer.h"
#include "output.h"
#include "printer_side_states.h"
#include "printers.h"
#include "product.h"
#include "text.h"

#include <algorithm>

namespace {

// Whether a path is absolute, so that it means the same in every working directory.
bool IsAbsolute(const std::string& path) {
    return path.starts_with('/') || path.starts_with('\\') || (path.size() > 2 && path[1] == ':');
}

constexpr DWORD kCheckMs = 30000;

// The printer side checks its own script, and reports errors with their lines on standard error.
void CheckScript(const std::string& script, const std::string& path) {
    const std::string program = OwnDirectory() + kPrinterSideProgram;
    const std::string what = "cannot check the script " + script;
    const KernelHandle process = StartProgram(program, Quoted(program) + " --check --script " + Quoted(path));
    if (!process) throw SystemFailure(GetLastError(), what);
    if (WaitForSingleObject(process.Get(), kCheckMs) != WAIT_OBJECT_0) {
        TerminateProcess(process.Get(), 1);
        throw SystemFailure(WAIT_TIMEOUT, what);
    }
    DWORD code = 0;
    GetExitCodeProcess(process.Get(), &code);
    if (code != 0)
        throw UsageFailure("the script " + script + " has errors",
                           "correct the lines above; nothing was added. docs/printer.md describes scripts");
}

// The script's path as it is stored. The file is checked now: otherwise an error would show only later.
std::string ScriptPath(const std::string& script) {
    const std::string path = RequireAnsi(script, "the script's path");
    if (!IsAbsolute(path))
        throw UsageFailure("the script's path \"" + script + "\" is relative",
                           "give an absolute path: 'oriel up' may run in another folder");
    ReadWholeFile(script);
    CheckScript(script, path);
    return path;
}

const char* WhoKnows(const Printer& printer) {
    if (printer.inSpooler) return printer.inRegistry ? "spooler, registry" : "spooler";
    return "registry";
}

// Most client kinds open only a printer that has been opened before, and `up` opens only the printers that exist when
// it starts. A failure is ignored here: whoever opens the printer later gets it.
void OpenForOthers(const std::string& name) {
    if (!ProductInitialised()) return;
    try {
        OpenPrinterOf({.printer = name});
    } catch (const Failure&) {
    }
}

} // namespace

Exit PrintersCommand() {
    Json list = Json::array();
    Table table{{{"NAME", "DRIVER", "MODEL", "PORT", "SCRIPT", "KNOWN TO", "PRINTER SIDE"}}};
    const std::vector<PrinterSideState> sides = ReadPrinterSideStates();
    for (const Printer& printer : ListPrinters()) {
        const std::string name = ToUtf8(printer.name), driver = ToUtf8(printer.driver), port = ToUtf8(printer.port);
        const std::string script = ToUtf8(printer.script);
        const auto side = std::find_if(sides.begin(), sides.end(), [&](const PrinterSideState& candidate) {
            return candidate.printer == printer.name;
        });
        list.push_back({{"name", name},
                        {"driver", driver},
                        {"registeredModel", printer.registeredModel},
                        {"port", port},
                        {"script", script},
                        {"inSpooler", printer.inSpooler},
                        {"inRegistry", printer.inRegistry},
                        {"printerSide", side == sides.end() ? Json(nullptr) : SideJson(*side)}});
        table.rows.push_back({Printable(name), Printable(driver), printer.registeredModel ? "registered" : "-",
                              Printable(port), script.empty() ? "-" : Printable(script), WhoKnows(printer),
                              side == sides.end() ? "-" : SideText(*side)});
    }
    if (g_output.json) {
        PrintJson({{"printers", list}});
    } else if (table.rows.size() > 1) {
        table.Print();
    } else {
        PrintLine("no printers; add one: oriel printers add NAME --driver DRIVER");
    }
    return Exit::Done;
}

Exit AddPrinterCommand(const std::string& name, const std::string& driver, const std::string& port,
                       const std::optional<std::string>& script) {
    const std::string nameText = RequireNewPrinterName(name);
    const std::string driverText = RequirePrinterText(driver, "the driver name");
    const std::string scriptPath = script ? ScriptPath(*script) : "";
    InstallPrinter(nameText, driverText, RequirePrinterText(port, "the port name"));
    try {
        if (script) SetPrinterScript(nameText, scriptPath);
    } catch (const Failure&) {
        UninstallPrinter(nameText); // all or nothing
        throw;
    }
    OpenForOthers(name);
    if (g_output.json) {
        PrintJson({{"added", name},
                   {"driver", driver},
                   {"registeredModel", IsRegisteredModel(driverText)},
                   {"script", script.value_or("")}});
    }
    return Exit::Done;
}

Exit RemovePrinterCommand(const std::string& name) {
    UninstallPrinter(RequirePrinterText(name, "the printer name"));
    if (g_output.json) PrintJson({{"removed", name}});
    return Exit::Done;
}
