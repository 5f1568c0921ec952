// Keeps no state: the spooler, the profile and the registry of the user have it.
#include "manager/default_printer.h"

#include "base/heap.h"
#include "base/registry_text.h"
#include "base/timings.h"
#include "manager/manager_record.h"
#include "product/guards.h"

#include <winspool.h>

#include <stdio.h>
#include <string.h>

namespace {

constexpr char kProfileSection[] = "Windows";
constexpr char kProfileKey[] = "device"; // printer name, spooler and port, separated by commas
constexpr char kPortsKey[] = "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\PrinterPorts";
constexpr DWORD kDeviceSize = 260;
constexpr DWORD kPortEntrySize = 512; // spooler, port and two time-outs

constexpr DWORD kEnumerated = PRINTER_ENUM_LOCAL | PRINTER_ENUM_CONNECTIONS;

bool Contains(const PRINTER_INFO_2A* printers, DWORD count, const char* name) {
    for (DWORD i = 0; i < count; ++i)
        if (printers[i].pPrinterName != nullptr && strcmp(printers[i].pPrinterName, name) == 0) return true;
    return false;
}

// Cuts the text at its third comma, which ends the port; false when it has fewer.
bool KeepNameSpoolerAndPort(char* text) {
    char* comma = text;
    for (int i = 0; i < 3; ++i) {
        comma = strchr(i == 0 ? text : comma + 1, ',');
        if (comma == nullptr) return false;
    }
    *comma = '\0';
    return true;
}

} // namespace

bool RepairDefaultPrinter(const char* printerName) {
    DWORD needed = 0;
    DWORD count = 0;
    EnumPrintersA(kEnumerated, nullptr, 2, nullptr, 0, &needed, &count);
    if (needed == 0) return false;
    const HeapBlock printers(needed);
    if (printers.memory == nullptr || !EnumPrintersA(kEnumerated, nullptr, 2, printers.memory, needed, &needed, &count))
        return false;

    char device[kDeviceSize];
    if (GetProfileStringA(kProfileSection, kProfileKey, "", device, sizeof device) == 0) return false;
    device[strcspn(device, ",")] = '\0';
    if (Contains(reinterpret_cast<const PRINTER_INFO_2A*>(printers.memory), count, device)) return true;

    // Not at once: a printer that is just being set up has its ports entry by then.
    Sleep(g_timings.defaultPrinterPause);

    const RegistryKey ports(HKEY_CURRENT_USER, kPortsKey, KEY_QUERY_VALUE);
    char entry[kPortEntrySize];
    if (!ports || !ReadRegistryText(ports.key, printerName, entry, sizeof entry)) return false;
    char repaired[kPrinterNameSize + kPortEntrySize];
    snprintf(repaired, sizeof repaired, "%s,%s", printerName, entry);
    return KeepNameSpoolerAndPort(repaired) && WriteProfileStringA(kProfileSection, kProfileKey, repaired) != FALSE;
}
