// The printers of this machine: those that the spooler knows, and those that have a key in the registry.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct Printer {
    std::string name; // ANSI; a printer that only the registry knows goes by the name of its key
    std::string driver;
    std::string port;
    std::string script; // that its printer side plays; empty: it has none
    bool inSpooler = false;
    bool inRegistry = false;
    bool registeredModel = false; // its driver is a model of the product
};

// Makes the registry's key of the spooler's printers, which Windows has from the start: where it is missing, the
// library does not ask the spooler for the drivers of printers that have no key. Throws Failure.
void EnsurePrintersKey();

std::vector<Printer> ListPrinters();
// Those that have a script: name, port and script. Reads the registry alone, and so does not wake a print server that
// is started when it is asked; but for a printer of that server which was given a script.
std::vector<Printer> ScriptedPrinters();

// The user's name of a printer, a driver or a port in ANSI. Throws Failure when it is none, or too long.
std::string RequirePrinterText(const std::string& text, const char* what);

// The same of the name of a printer that is to be made here.
std::string RequireNewPrinterName(const std::string& text);

// The path of the printer's key below HKEY_LOCAL_MACHINE.
std::string PrinterKeyPath(const std::string& name);

bool IsRegisteredModel(const std::string& driver);

// The printer's driver; nothing when neither registry nor spooler knows the printer.
std::optional<std::string> DriverOf(const std::string& name);

// The name under which the user's printer is known: as given where that is known, else in another case of its letters.
// Throws Failure when there is no such printer. Asked before every open: the library's printer list takes any name and
// keeps it for good.
std::string KnownPrinterName(const std::string& name);

// The printer side that `oriel up` starts for it plays that file. Throws Failure.
void SetPrinterScript(const std::string& name, const std::string& path);

void InstallPrinter(const std::string& name, const std::string& driver, const std::string& port);
// Adds a printer that is like the one there is in everything but its name and its script. Throws Failure.
void CopyPrinter(const std::string& name, const std::string& newName, const std::string& what);
// The copy plays the script from now on, if there is one. Throws Failure.
void MovePrinterScript(const std::string& name, const std::string& newName);
// Also removes the copies of persistent variables. Throws Failure.
void UninstallPrinter(const std::string& name);
