// printers, printers add, printers remove.
#include "commands.h"

#include "output.h"
#include "printers.h"
#include "text.h"

#include <tvsqdz.h>

namespace {

std::string PrinterText(const std::string& text, const char* what) {
    const std::string ansi = RequireAnsi(text, what);
    if (ansi.empty() || ansi.size() > TVS_PRINTER_NAME_MAX)
        throw UsageFailure(std::string(what) + " has 1 to " + std::to_string(TVS_PRINTER_NAME_MAX) + " bytes");
    return ansi;
}

const char* WhoKnows(const Printer& printer) {
    if (printer.inSpooler) return printer.inRegistry ? "spooler, registry" : "spooler";
    return "registry";
}

} // namespace

Exit PrintersCommand() {
    Json list = Json::array();
    Table table{{{"NAME", "DRIVER", "MODEL", "PORT", "KNOWN TO"}}};
    for (const Printer& printer : ListPrinters()) {
        const std::string name = ToUtf8(printer.name), driver = ToUtf8(printer.driver), port = ToUtf8(printer.port);
        list.push_back({{"name", name},
                        {"driver", driver},
                        {"registeredModel", printer.registeredModel},
                        {"port", port},
                        {"inSpooler", printer.inSpooler},
                        {"inRegistry", printer.inRegistry}});
        table.rows.push_back({Printable(name), Printable(driver), printer.registeredModel ? "registered" : "-",
                              Printable(port), WhoKnows(printer)});
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

Exit AddPrinterCommand(const std::string& name, const std::string& driver, const std::string& port) {
    const std::string driverText = PrinterText(driver, "the driver name");
    InstallPrinter(PrinterText(name, "the printer name"), driverText, PrinterText(port, "the port name"));
    if (g_output.json)
        PrintJson({{"added", name}, {"driver", driver}, {"registeredModel", IsRegisteredModel(driverText)}});
    return Exit::Done;
}

Exit RemovePrinterCommand(const std::string& name) {
    UninstallPrinter(PrinterText(name, "the printer name"));
    if (g_output.json) PrintJson({{"removed", name}});
    return Exit::Done;
}
