// printers, printers add, printers remove.
#include "commands.h"

#include "files.h"
#include "output.h"
#include "printers.h"
#include "text.h"

namespace {

// Whether a path means the same wherever the program runs that opens it.
bool IsAbsolute(const std::string& path) {
    return path.starts_with('/') || path.starts_with('\\') || (path.size() > 2 && path[1] == ':');
}

// The script's path in the form in which it is stored. The file is read, since a mistake here would show only later.
std::string ScriptPath(const std::string& script) {
    const std::string path = RequireAnsi(script, "the script's path");
    if (!IsAbsolute(path))
        throw UsageFailure("the script's path \"" + script + "\" is relative",
                           "give it from the root on: 'oriel up' runs elsewhere");
    ReadWholeFile(script);
    return path;
}

const char* WhoKnows(const Printer& printer) {
    if (printer.inSpooler) return printer.inRegistry ? "spooler, registry" : "spooler";
    return "registry";
}

} // namespace

Exit PrintersCommand() {
    Json list = Json::array();
    Table table{{{"NAME", "DRIVER", "MODEL", "PORT", "SCRIPT", "KNOWN TO"}}};
    for (const Printer& printer : ListPrinters()) {
        const std::string name = ToUtf8(printer.name), driver = ToUtf8(printer.driver), port = ToUtf8(printer.port);
        const std::string script = ToUtf8(printer.script);
        list.push_back({{"name", name},
                        {"driver", driver},
                        {"registeredModel", printer.registeredModel},
                        {"port", port},
                        {"script", script},
                        {"inSpooler", printer.inSpooler},
                        {"inRegistry", printer.inRegistry}});
        table.rows.push_back({Printable(name), Printable(driver), printer.registeredModel ? "registered" : "-",
                              Printable(port), script.empty() ? "-" : Printable(script), WhoKnows(printer)});
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
    const std::string nameText = RequirePrinterText(name, "the printer name");
    const std::string driverText = RequirePrinterText(driver, "the driver name");
    const std::string scriptPath = script ? ScriptPath(*script) : "";
    InstallPrinter(nameText, driverText, RequirePrinterText(port, "the port name"));
    if (script) SetPrinterScript(nameText, scriptPath);
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
