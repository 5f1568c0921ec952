// Printers of the spooler and of the registry. No state.
#include "base/printers.h"

#include "base/failure.h"
#include "base/product.h"
#include "base/registry.h"
#include "base/spooler.h"

#include "product/model_variables.h"
#include "product/object_names.h"
#include "product/registry_names.h"

#include <tvsqdz.h>

#include <algorithm>

namespace {

constexpr size_t kLongestNewName = 220; // the spooler's limit
constexpr char kPortValue[] = "Port";
constexpr char kNameValue[] = "Name"; // the spooler sets it for its own printers
// The product's; they are removed with the printer. A printer has one of them.
constexpr char kScriptValue[] = "Oriel Script"; // a file
constexpr char kDeviceValue[] = "Oriel Device"; // an address
constexpr char kScriptPrefix[] = "script:";
constexpr char kQueuePrefix[] = "cups:"; // the printer is that queue of the print server

std::vector<Printer> PrintersIn(const Bytes& buffer, DWORD count) {
    std::vector<Printer> printers;
    const auto* records = reinterpret_cast<const PRINTER_INFO_2A*>(buffer.data());
    for (DWORD i = 0; i < count; ++i) {
        printers.push_back({.name = OrEmpty(records[i].pPrinterName),
                            .driver = OrEmpty(records[i].pDriverName),
                            .port = OrEmpty(records[i].pPortName),
                            .location = OrEmpty(records[i].pLocation),
                            .announced = (records[i].Attributes & PRINTER_ATTRIBUTE_NETWORK) != 0,
                            .inSpooler = true});
    }
    return printers;
}

// None when the spooler cannot be asked.
std::vector<Printer> SpoolerPrinters() {
    DWORD count = 0;
    const auto buffer = SpoolerRecords([&](LPBYTE into, DWORD size, LPDWORD needed) {
        return EnumPrintersA(PRINTER_ENUM_LOCAL | PRINTER_ENUM_CONNECTIONS, nullptr, 2, into, size, needed, &count);
    });
    return buffer ? PrintersIn(*buffer, count) : std::vector<Printer>();
}

bool SameText(const std::string& a, const std::string& b) {
    return lstrcmpiA(a.c_str(), b.c_str()) == 0;
}

std::string TextOf(HKEY key, const char* name) {
    const std::optional<RegistryValue> value = ReadValue(key, name);
    return value ? value->Text().value_or("") : "";
}

std::string DeviceIn(HKEY key) {
    const std::string script = TextOf(key, kScriptValue);
    return script.empty() ? TextOf(key, kDeviceValue) : kScriptPrefix + script;
}

} // namespace

void EnsurePrintersKey() {
    if (const RegistryKey root = OpenKey(HKEY_LOCAL_MACHINE, kPrintersKey, KEY_READ)) return;
    RegistryKey made;
    const LSTATUS status = CreateKey(HKEY_LOCAL_MACHINE, kPrintersKey, made);
    if (status != ERROR_SUCCESS)
        throw SystemFailure(static_cast<uint32_t>(status), "cannot create the registry's key of printers");
}

std::vector<Printer> ListPrinters() {
    std::vector<Printer> printers = SpoolerPrinters();
    if (const RegistryKey root = OpenKey(HKEY_LOCAL_MACHINE, kPrintersKey, KEY_READ)) {
        for (const std::string& keyName : ListSubkeys(root.Get())) {
            auto printer = std::find_if(printers.begin(), printers.end(), [&](const Printer& candidate) {
                return SameText(PrinterKeyName(candidate.name.c_str()).name, keyName);
            });
            if (printer == printers.end()) printer = printers.insert(printers.end(), {.name = keyName});
            printer->inRegistry = true;
            const RegistryKey key = OpenKey(root.Get(), keyName, KEY_QUERY_VALUE);
            if (!key) continue;
            // Like the library: the registry first, the spooler only for a printer without a key.
            if (const std::string driver = TextOf(key.Get(), kDriverValue); !driver.empty()) printer->driver = driver;
            printer->device = DeviceIn(key.Get());
            if (printer->port.empty()) printer->port = TextOf(key.Get(), kPortValue);
        }
    }
    for (Printer& printer : printers)
        printer.registeredModel = IsRegisteredModel(printer.driver);
    return printers;
}

std::string ScriptOf(const Printer& printer) {
    return printer.device.starts_with(kScriptPrefix) ? printer.device.substr(sizeof kScriptPrefix - 1) : "";
}

std::vector<Printer> PrintersWithDevice() {
    std::vector<Printer> printers;
    bool others = false;
    if (const RegistryKey root = OpenKey(HKEY_LOCAL_MACHINE, kPrintersKey, KEY_READ)) {
        for (const std::string& keyName : ListSubkeys(root.Get())) {
            const RegistryKey key = OpenKey(root.Get(), keyName, KEY_QUERY_VALUE);
            Printer printer{.inRegistry = true};
            if (key) printer.device = DeviceIn(key.Get());
            if (printer.device.empty()) continue;
            printer.name = printer.device.starts_with(kQueuePrefix) ? printer.device.substr(sizeof kQueuePrefix - 1)
                                                                    : TextOf(key.Get(), kNameValue);
            printer.port = TextOf(key.Get(), kPortValue);
            others = others || printer.name.empty();
            printers.push_back(printer);
        }
    }
    if (!others) return printers;
    printers = ListPrinters();
    std::erase_if(printers, [](const Printer& printer) { return printer.device.empty(); });
    return printers;
}

std::string RequirePrinterText(const std::string& text, const char* what) {
    const std::string ansi = RequireAnsi(text, what);
    if (ansi.empty() || ansi.size() > TVS_PRINTER_NAME_MAX)
        throw UsageFailure(std::string(what) + " has 1 to " + std::to_string(TVS_PRINTER_NAME_MAX) + " bytes");
    return ansi;
}

namespace {

// True for "\\SERVER\NAME", the only valid form of a name with backslashes.
bool IsConnection(const std::string& name) {
    const std::string key = PrinterKeyName(name.c_str()).name; // commas for backslashes, and no others
    const size_t third = key.find(',', 2);
    return key.starts_with(",,") && third != std::string::npos && third > 2 && third + 1 < key.size() &&
           key.find(',', third + 1) == std::string::npos;
}

} // namespace

std::string RequireNewPrinterName(const std::string& text) {
    const std::string name = RequirePrinterText(text, "the printer name");
    const bool comma = name.find(',') != std::string::npos; // never the second byte of a character
    const bool backslash = PrinterKeyName(name.c_str()).name != name;
    if (name.size() > kLongestNewName || comma || (backslash && !IsConnection(name)))
        throw UsageFailure("\"" + text + "\" cannot be the name of a printer",
                           "use 1 to 220 characters, and no comma or backslash");
    return name;
}

std::string PrinterKeyPath(const std::string& name) {
    return std::string(kPrintersKey) + "\\" + PrinterKeyName(name.c_str()).name;
}

bool IsRegisteredModel(const std::string& driver) {
    return static_cast<bool>(product::OpenModelVariables(driver.c_str()));
}

std::optional<std::string> DriverOf(const std::string& name) {
    LSTATUS status = ERROR_SUCCESS;
    if (const RegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, PrinterKeyPath(name), KEY_QUERY_VALUE, &status))
        return TextOf(key.Get(), kDriverValue);
    for (const Printer& printer : SpoolerPrinters())
        if (SameText(printer.name, name)) return printer.driver;
    return std::nullopt;
}

std::string KnownPrinterName(const std::string& name) {
    const std::vector<Printer> printers = ListPrinters();
    for (const Printer& printer : printers)
        if (printer.name == name) return name;
    for (const Printer& printer : printers) {
        if (SameText(printer.name, name)) return printer.name;
        // Any comma in a key's name may stand for a backslash.
        if (!printer.inSpooler && SameText(printer.name, PrinterKeyName(name.c_str()).name)) return name;
    }
    const std::string shown = ToUtf8(name);
    throw Failure{Exit::False, "no printer is called \"" + shown + "\"", "",
                  "list them with 'oriel printers', or add it: oriel printers add \"" + shown + "\" --driver DRIVER"};
}

namespace {

// `oriel up` reads the list of printers at once, instead of when it looks again. It is of the same user, or this is
// root.
void TellPrintersChanged() {
    if (const KernelHandle changed{
            OpenEventA(EVENT_MODIFY_STATE, FALSE, SharedName(product::kPrintersChangedName).c_str())})
        SetEvent(changed.Get());
}

} // namespace

void SetPrinterDevice(const std::string& name, const std::string& device) {
    const std::string script = ScriptOf({.device = device});
    const LSTATUS status = script.empty() ? WriteText(HKEY_LOCAL_MACHINE, PrinterKeyPath(name), kDeviceValue, device)
                                          : WriteText(HKEY_LOCAL_MACHINE, PrinterKeyPath(name), kScriptValue, script);
    if (status != ERROR_SUCCESS) {
        throw SystemFailure(static_cast<uint32_t>(status),
                            "cannot store the device of the printer \"" + ToUtf8(name) + "\"");
    }
    TellPrintersChanged();
}

void SetQueueDevice(const std::string& name, const std::string& driver) {
    // Without the driver the library would find a printer of no model.
    const LSTATUS status = WriteText(HKEY_LOCAL_MACHINE, PrinterKeyPath(name), kDriverValue, driver);
    if (status != ERROR_SUCCESS)
        throw SystemFailure(static_cast<uint32_t>(status), "cannot store the printer \"" + ToUtf8(name) + "\"");
    SetPrinterDevice(name, kQueuePrefix + name);
}

std::vector<Printer> DiscoverPrinters() {
    DWORD count = 0;
    const auto buffer = SpoolerRecords([&](LPBYTE into, DWORD size, LPDWORD needed) {
        return EnumPrintersA(PRINTER_ENUM_NETWORK, nullptr, 2, into, size, needed, &count);
    });
    if (!buffer) {
        Failure failure = SystemFailure(GetLastError(), "cannot look for printers");
        if (failure.code == ERROR_MOD_NOT_FOUND) {
            failure.why = "the module for print servers is missing";
            failure.next = "install the package oriel-cups";
        }
        throw failure;
    }
    return PrintersIn(*buffer, count);
}

void InstallPrinter(const std::string& name, const std::string& driver, const std::string& port) {
    static char processor[] = "winprint";
    static char dataType[] = "RAW";
    std::string nameText = name, driverText = driver, portText = port; // the record's pointers are not const
    PRINTER_INFO_2A record{};
    record.pPrinterName = nameText.data();
    record.pDriverName = driverText.data();
    record.pPortName = portText.data();
    record.pPrintProcessor = processor;
    record.pDatatype = dataType;
    const PrinterHandle printer(AddPrinterA(nullptr, 2, reinterpret_cast<LPBYTE>(&record)));
    if (!printer) {
        Failure failure = SystemFailure(GetLastError(), "cannot add the printer \"" + ToUtf8(name) + "\"");
        if (failure.code == ERROR_INVALID_PRINTER_NAME) {
            failure.why = "not a valid name";
            failure.next = "use 1 to 220 characters, and no comma or backslash";
        }
        throw failure;
    }
}

namespace {

// Values that the spooler has already put into the new key stay.
LSTATUS CopyKey(HKEY from, const std::string& path) {
    RegistryKey to;
    if (const LSTATUS status = CreateKey(HKEY_LOCAL_MACHINE, path, to); status != ERROR_SUCCESS) return status;
    for (const RegistryValue& value : ListValues(from)) {
        if (value.name == kScriptValue || value.name == kDeviceValue || ReadValue(to.Get(), value.name)) continue;
        const LSTATUS status = RegSetValueExA(to.Get(), value.name.c_str(), 0, value.type, value.data.data(),
                                              static_cast<DWORD>(value.data.size()));
        if (status != ERROR_SUCCESS) return status;
    }
    for (const std::string& name : ListSubkeys(from)) {
        const RegistryKey key = OpenKey(from, name, KEY_READ);
        if (!key) continue;
        if (const LSTATUS status = CopyKey(key.Get(), path + "\\" + name); status != ERROR_SUCCESS) return status;
    }
    return ERROR_SUCCESS;
}

} // namespace

void CopyPrinter(const std::string& name, const std::string& newName, const std::string& what) {
    for (const Printer& printer : ListPrinters())
        if (SameText(printer.name, newName)) throw SystemFailure(ERROR_PRINTER_ALREADY_EXISTS, what);
    std::string nameText = name, newText = newName;                 // the calls' texts are not const
    PRINTER_DEFAULTSA rights{nullptr, nullptr, PRINTER_ALL_ACCESS}; // it is removed afterwards
    PrinterHandle printer;
    if (OpenPrinterA(nameText.data(), printer.Receive(), &rights)) {
        // The spooler stores the name of its own printers here. It could not remove others afterwards.
        if (!ReadText(HKEY_LOCAL_MACHINE, PrinterKeyPath(name), kNameValue)) {
            Failure failure = SystemFailure(ERROR_NOT_SUPPORTED, what);
            failure.why = "the printer belongs to a print server";
            failure.next = "rename it there, then run 'oriel set PRINTER PrinterName NEW'";
            throw failure;
        }
        const auto buffer = SpoolerRecords(
            [&](LPBYTE into, DWORD size, LPDWORD needed) { return GetPrinterA(printer.Get(), 2, into, size, needed); });
        if (!buffer) throw SystemFailure(GetLastError(), what);
        const auto& record = *reinterpret_cast<const PRINTER_INFO_2A*>(buffer->data());
        PRINTER_INFO_2A copy{};
        copy.pServerName = record.pServerName;
        copy.pPrinterName = newText.data();
        copy.pShareName = record.pShareName;
        copy.pPortName = record.pPortName;
        copy.pDriverName = record.pDriverName;
        copy.pComment = record.pComment;
        copy.pLocation = record.pLocation;
        copy.pPrintProcessor = record.pPrintProcessor;
        copy.pDatatype = record.pDatatype;
        copy.Attributes = record.Attributes & PRINTER_ATTRIBUTE_SHARED;
        if (!PrinterHandle(AddPrinterA(nullptr, 2, reinterpret_cast<LPBYTE>(&copy))))
            throw SystemFailure(GetLastError(), what);
    } else if (GetLastError() != ERROR_INVALID_PRINTER_NAME) {
        throw SystemFailure(GetLastError(), what);
    }
    const RegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, PrinterKeyPath(name), KEY_READ);
    const LSTATUS status = key ? CopyKey(key.Get(), PrinterKeyPath(newName)) : ERROR_SUCCESS;
    if (status == ERROR_SUCCESS) return;
    UninstallPrinter(newName);
    throw SystemFailure(static_cast<uint32_t>(status), what);
}

std::string DeviceOf(const std::string& name) {
    const RegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, PrinterKeyPath(name), KEY_QUERY_VALUE);
    return key ? DeviceIn(key.Get()) : "";
}

void MovePrinterDevice(const std::string& name, const std::string& newName) {
    const std::string device = DeviceOf(name);
    if (!device.empty()) SetPrinterDevice(newName, device);
}

void UninstallPrinter(const std::string& name) {
    const std::string what = "cannot remove the printer \"" + ToUtf8(name) + "\"";
    std::string nameText = name; // the call's text is not const
    PRINTER_DEFAULTSA rights{nullptr, nullptr, PRINTER_ALL_ACCESS};
    PrinterHandle printer;
    // The queue of a print server stays; it only has no printer side any more.
    if (DeviceOf(name) != kQueuePrefix + name && OpenPrinterA(nameText.data(), printer.Receive(), &rights)) {
        if (!DeletePrinter(printer.Get())) throw SystemFailure(GetLastError(), what);
        DeleteTree(HKEY_LOCAL_MACHINE,
                   PrinterKeyPath(name)); // a connection has no key from the spooler, but may have ours
        TellPrintersChanged();
        return;
    }
    if (DeviceOf(name) != kQueuePrefix + name && GetLastError() != ERROR_INVALID_PRINTER_NAME)
        throw SystemFailure(GetLastError(), what);
    // The spooler does not know it. Remove what the registry may still have.
    const LSTATUS status = DeleteTree(HKEY_LOCAL_MACHINE, PrinterKeyPath(name));
    if (status == ERROR_FILE_NOT_FOUND) throw SystemFailure(ERROR_INVALID_PRINTER_NAME, what);
    if (status != ERROR_SUCCESS) throw SystemFailure(static_cast<uint32_t>(status), what);
    TellPrintersChanged();
}
