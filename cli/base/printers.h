// The printers of this machine: those that the spooler knows, and those that have a key in the registry.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct Printer {
    std::string name; // ANSI; a printer that only the registry knows goes by the name of its key
    std::string driver;
    std::string port;
    std::string location{};
    bool announced = false; // discovered: it announces itself, and is no queue of the print server
    std::string device;     // what its printer side is run with: "ipp://HOST/PATH", "script:FILE"; empty: none
    bool inSpooler = false;
    bool inRegistry = false;
    bool registeredModel = false; // its driver is a model of the product
};

// Creates the spooler's key of printers, which Windows always has. Without it the library does not ask the spooler for
// the driver of a printer that has no key. Throws Failure.
void EnsurePrintersKey();

std::vector<Printer> ListPrinters();
// Printers that have a device: name, port and device. Reads only the registry, so that it does not start a print server
// that is activated on demand, unless a printer of that server has a device.
std::vector<Printer> PrintersWithDevice();

// The file of a device that is a script; empty: it is another device, or none.
std::string ScriptOf(const Printer& printer);

// The user's name of a printer, driver or port in ANSI. Throws Failure when it is empty, too long, or not in the code
// page.
std::string RequirePrinterText(const std::string& text, const char* what);

// The same for the name of a new printer of this spooler.
std::string RequireNewPrinterName(const std::string& text);

// The path of the printer's key below HKEY_LOCAL_MACHINE.
std::string PrinterKeyPath(const std::string& name);

bool IsRegisteredModel(const std::string& driver);

// The printer's driver; nothing when neither the registry nor the spooler knows the printer.
std::optional<std::string> DriverOf(const std::string& name);

// The exact name of the user's printer: the name as given, or one that differs only in case. Throws Failure when there
// is no such printer. Called before every open, because the library's printer list accepts any name and keeps it.
std::string KnownPrinterName(const std::string& name);

// The device that `oriel up` starts a printer side for. Throws Failure.
void SetPrinterDevice(const std::string& name, const std::string& device);

// Of a printer that is a queue of the print server: no printer is added. Throws Failure.
void SetQueueDevice(const std::string& name, const std::string& driver);
// What the registry has for the printer; empty: none.
std::string DeviceOf(const std::string& name);

// The print server's queues, and printers that announce themselves in the network; takes some seconds. Of the former
// `port` is what the server prints to. Throws Failure.
std::vector<Printer> DiscoverPrinters();

void InstallPrinter(const std::string& name, const std::string& driver, const std::string& port);
// Adds a printer that equals another one except for its name and device. Throws Failure.
void CopyPrinter(const std::string& name, const std::string& newName, const std::string& what);
// Gives the copy the device of the printer, if it has one. Throws Failure.
void MovePrinterDevice(const std::string& name, const std::string& newName);
// Also removes the copies of persistent variables. Throws Failure.
void UninstallPrinter(const std::string& name);
