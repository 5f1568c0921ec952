// printers, printers add, printers remove.
#include "commands/commands.h"

#include "base/child_program.h"
#include "base/device_state.h"
#include "base/files.h"
#include "base/opened_printer.h"
#include "base/output.h"
#include "base/printer_side_states.h"
#include "base/printers.h"
#include "base/product.h"
#include "base/text.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char kScriptPrefix[] = "script:";
constexpr char kAnyDriver[] = "Network Printer"; // of a printer that needs no model

// Whether a path is absolute, so that it means the same in every working directory.
bool IsAbsolute(const std::string& path) {
    return path.starts_with('/') || path.starts_with('\\') || (path.size() > 2 && path[1] == ':');
}

constexpr DWORD kCheckMs = 30000;

// The printer side checks its own script, and tries its own device. What it finds, and what is wrong, it prints.
// Throws UsageFailure of these texts when it is no success.
void CheckDevice(const std::string& device, const std::string& what, const std::string& why, const std::string& next) {
    const std::string program = OwnDirectory() + kPrinterSideProgram;
    const std::string quiet = g_output.json ? " --quiet" : "";
    const KernelHandle process =
        StartProgram(program, Quoted(program) + " --check" + quiet + " --device " + Quoted(device));
    if (!process) throw SystemFailure(GetLastError(), what);
    if (WaitForSingleObject(process.Get(), kCheckMs) != WAIT_OBJECT_0) {
        TerminateProcess(process.Get(), 1);
        throw SystemFailure(WAIT_TIMEOUT, what);
    }
    DWORD code = 0;
    GetExitCodeProcess(process.Get(), &code);
    if (code != 0) throw UsageFailure(why, next);
}

// The script as a device. The file is checked now: otherwise an error would show only later.
std::string ScriptDevice(const std::string& script) {
    const std::string path = RequireAnsi(script, "the script's path");
    if (!IsAbsolute(path))
        throw UsageFailure("the script's path \"" + script + "\" is relative",
                           "give an absolute path: 'oriel up' may run in another folder");
    ReadWholeFile(script);
    CheckDevice(kScriptPrefix + path, "cannot check the script " + script, "the script " + script + " has errors",
                "correct the lines above; nothing was added. docs/printer.md describes scripts");
    return kScriptPrefix + path;
}

// Tried now, so that nobody waits for a printer that is not there.
std::string TriedDevice(const std::string& device) {
    if (device.starts_with(kScriptPrefix)) return ScriptDevice(device.substr(std::strlen(kScriptPrefix)));
    const std::string address = RequireAnsi(device, "the device's address");
    CheckDevice(address, "cannot try the device " + device, "the device " + device + " cannot be used",
                "see the line above; nothing was added. docs/devices.md describes devices");
    return address;
}

// An SNMP community is shown to nobody.
std::string WithoutSecrets(const std::string& device) {
    return device.starts_with(kScriptPrefix) ? device : device.substr(0, device.find('?'));
}

const char* WhoKnows(const Printer& printer) {
    if (printer.inSpooler) return printer.inRegistry ? "spooler, registry" : "spooler";
    return "registry";
}

void TellAdded(const std::string& name, const std::string& driver, const std::string& device) {
    if (g_output.json) {
        PrintJson({{"added", name},
                   {"driver", ToUtf8(driver)},
                   {"registeredModel", IsRegisteredModel(driver)},
                   {"script", ToUtf8(ScriptOf({.device = device}))},
                   {"device", ToUtf8(WithoutSecrets(device))}});
    } else if (!device.empty() && !device.starts_with(kScriptPrefix)) { // behind what its device told
        PrintLine("added " + Printable(name) + (ProductInitialised() ? "" : "; run 'oriel up' to watch it"));
    }
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
    Table table{{{"NAME", "DRIVER", "MODEL", "PORT", "DEVICE", "KNOWN TO", "PRINTER SIDE", "PRINTER"}}};
    const std::vector<PrinterSideState> sides = ReadPrinterSideStates();
    const std::vector<Printer> printers = ListPrinters();
    const auto isOnNetwork = [](const Printer& printer) {
        return !printer.device.empty() && ScriptOf(printer).empty();
    };
    std::vector<std::string> onNetwork;
    for (const Printer& printer : printers)
        if (isOnNetwork(printer)) onNetwork.push_back(printer.name);
    const std::vector<std::optional<DeviceRecord>> states = AskDeviceStates(onNetwork);
    auto nextState = states.begin();
    for (const Printer& printer : printers) {
        const std::string name = ToUtf8(printer.name), driver = ToUtf8(printer.driver), port = ToUtf8(printer.port);
        const std::string script = ToUtf8(ScriptOf(printer)), device = ToUtf8(WithoutSecrets(printer.device));
        const bool network = isOnNetwork(printer);
        const std::optional<DeviceRecord> state = network ? *nextState++ : std::nullopt;
        const std::optional<OwnValue> supplies =
            network ? ReadOwnVariable(printer.name, kSuppliesVariable) : std::nullopt;
        const auto side = std::find_if(sides.begin(), sides.end(), [&](const PrinterSideState& candidate) {
            return candidate.printer == printer.name;
        });
        list.push_back({{"name", name},
                        {"driver", driver},
                        {"registeredModel", printer.registeredModel},
                        {"port", port},
                        {"script", script},
                        {"device", device},
                        {"deviceState", state ? DeviceJson(*state) : Json(nullptr)},
                        {"supplies", supplies ? supplies->json : Json::array()},
                        {"inSpooler", printer.inSpooler},
                        {"inRegistry", printer.inRegistry},
                        {"printerSide", side == sides.end() ? Json(nullptr) : SideJson(*side)}});
        table.rows.push_back({Printable(name), Printable(driver), printer.registeredModel ? "registered" : "-",
                              Printable(port), device.empty() ? "-" : Printable(device), WhoKnows(printer),
                              side == sides.end() ? "-" : SideText(*side), state ? DeviceText(*state) : "-"});
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

namespace {

constexpr char kQueuePrefix[] = "cups:";

// A queue of the print server is a printer already; it only gets a printer side.
Exit AddQueue(const NewPrinter& wanted) {
    const std::string queue = wanted.device->substr(std::strlen(kQueuePrefix));
    const std::string name = KnownPrinterName(queue);
    if (wanted.name != ToUtf8(name))
        throw UsageFailure("the queue " + queue + " is the printer \"" + ToUtf8(name) + "\"",
                           "add it by that name: oriel printers add '" + ToUtf8(name) + "' --device cups:" + queue);
    TriedDevice(kQueuePrefix + ToUtf8(name));
    const std::string driver =
        wanted.driver.empty() ? DriverOf(name).value_or("") : RequireAnsi(wanted.driver, "the driver name");
    SetQueueDevice(name, driver);
    OpenForOthers(wanted.name);
    TellAdded(wanted.name, driver, kQueuePrefix + name);
    return Exit::Done;
}

// For a shell: what is announced may hold anything.
std::string ShellWord(const std::string& text) {
    std::string word = "'";
    for (const char letter : text)
        word += letter == '\'' ? R"('"'"')" : std::string(1, letter); // without a backslash, which Printable doubles
    return word + "'";
}

// The command that adds a printer that was found.
std::string AddLine(const Printer& printer) {
    const std::string port = ToUtf8(printer.port), name = ToUtf8(printer.name);
    const std::string address = printer.announced ? port : kQueuePrefix + name;
    return "oriel printers add " + ShellWord(name) + " --device " + ShellWord(address);
}

} // namespace

Exit DiscoverCommand() {
    const std::vector<Printer> found = DiscoverPrinters();
    Json list = Json::array();
    for (const Printer& printer : found) {
        list.push_back({{"name", ToUtf8(printer.name)},
                        {"model", ToUtf8(printer.driver)},
                        {"address", ToUtf8(printer.port)},
                        {"location", ToUtf8(printer.location)},
                        {"queue", !printer.announced},
                        {"add", AddLine(printer)}});
        if (g_output.json) continue;
        PrintLine(Styled(Printable(ToUtf8(printer.name)), Style::Name) + "  " + Printable(ToUtf8(printer.driver)) +
                  "  " + Printable(ToUtf8(printer.port)));
        PrintLine("  " + Printable(AddLine(printer)));
    }
    if (g_output.json)
        PrintJson({{"printers", list}});
    else if (found.empty())
        PrintLine(
            "no printers found: none announces itself, and the print server has no queue; a printer whose address "
            "you know is added with 'oriel printers add NAME --device ipp://ADDRESS/ipp/print'");
    return found.empty() ? Exit::False : Exit::Done;
}

Exit AddPrinterCommand(const NewPrinter& wanted) {
    if (wanted.device && wanted.device->starts_with(kQueuePrefix)) return AddQueue(wanted);
    const std::string nameText = RequireNewPrinterName(wanted.name);
    if (wanted.script && wanted.device) throw UsageFailure("a printer has one device", "give --device or --script");
    if (wanted.driver.empty() && !wanted.device)
        throw UsageFailure("--driver is missing", "it names the model; only a printer with --device needs none");
    const std::string driver = wanted.driver.empty() ? kAnyDriver : wanted.driver;
    const std::string driverText = RequirePrinterText(driver, "the driver name");
    const std::string portText = RequirePrinterText(wanted.port, "the port name");
    const std::string device = wanted.script   ? ScriptDevice(*wanted.script)
                               : wanted.device ? TriedDevice(*wanted.device)
                                               : "";
    InstallPrinter(nameText, driverText, portText);
    try {
        if (!device.empty()) SetPrinterDevice(nameText, device);
    } catch (const Failure&) {
        UninstallPrinter(nameText); // all or nothing
        throw;
    }
    OpenForOthers(wanted.name);
    TellAdded(wanted.name, driverText, device);
    return Exit::Done;
}

Exit RemovePrinterCommand(const std::string& name) {
    UninstallPrinter(RequirePrinterText(name, "the printer name"));
    if (g_output.json) PrintJson({{"removed", name}});
    return Exit::Done;
}
