// No state: the spooler, the profile and the registry of the user have it.
#include "manager/kind_effects.h"

#include "base/memory.h"
#include "base/system.h"
#include "base/timings.h"
#include "machine/objects.h"
#include "manager/manager_record.h"
#include "product/client_kinds.h"
#include "product/desktop_agent.h"
#include "product/guards.h"

#include <stdio.h>
#include <string.h>
#include <winspool.h>

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

    // Not immediately: a printer that is just being set up has its ports entry by then.
    Sleep(g_timings.defaultPrinterPause);

    const RegistryKey ports = OpenKey(HKEY_CURRENT_USER, kPortsKey, KEY_QUERY_VALUE);
    char entry[kPortEntrySize];
    if (!ports || !ReadRegistryText(ports.Get(), printerName, entry, sizeof entry)) return false;
    char repaired[kPrinterNameSize + kPortEntrySize];
    snprintf(repaired, sizeof repaired, "%s,%s", printerName, entry);
    return KeepNameSpoolerAndPort(repaired) && WriteProfileStringA(kProfileSection, kProfileKey, repaired) != FALSE;
}

// The agent is found by its window, so that only one runs.

namespace {

constexpr char kSystemAccount[] = "SYSTEM";
constexpr DWORD kNameSize = 64;

// Windows NT, where services run beside the desktop.
bool HasDesktop() {
    char user[kNameSize];
    DWORD userSize = sizeof user;
    if (GetUserNameA(user, &userSize) && lstrcmpiA(user, kSystemAccount) == 0) return false;
    const HWINSTA station = GetProcessWindowStation();
    if (station == nullptr) return false;
    char name[kNameSize];
    DWORD needed = 0;
    if (!GetUserObjectInformationA(station, UOI_NAME, name, sizeof name, &needed)) return false;
    return lstrcmpiA(name, product::kInteractiveStation) == 0;
}

} // namespace

bool LaunchDesktopAgent(const ManagerRecord* manager) {
    if ((manager->flags & OsNtAny) != 0 && !HasDesktop()) return true;
    if (FindWindowA(product::kAgentWindowClass, nullptr) != nullptr) return true;

    const KernelHandle ready(CreateNamedEvent(product::AgentReadyName(manager->databaseName)));
    InstalledFile agent;
    if (!FindInstalledFile(product::kAgentExecutable, agent)) return false;
    char commandLine[sizeof agent.path + sizeof "\"\" " + sizeof product::kAgentSwitch];
    snprintf(commandLine, sizeof commandLine, "\"%s\" %s", agent.path, product::kAgentSwitch);
    STARTUPINFOA startUp = {};
    startUp.cb = sizeof startUp;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessA(nullptr, commandLine, nullptr, nullptr, FALSE, CREATE_NEW_CONSOLE, nullptr, nullptr, &startUp,
                        &process))
        return false;
    if (ready)
        WaitForSingleObject(ready.Get(),
                            manager->clientKind == kAgentWaitingKind ? g_timings.agentReadyLong : g_timings.agentReady);
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    return true;
}
