// The agent is known by its window, so that no second one is started. Keeps no state.
#include "manager/desktop_agent.h"

#include "base/registry_text.h"
#include "base/timings.h"
#include "machine/object_names.h"
#include "product/client_kinds.h"
#include "product/desktop_agent.h"
#include "product/guards.h"

#include <stdio.h>

namespace {

constexpr char kSystemAccount[] = "SYSTEM";
constexpr DWORD kNameSize = 64;

// Under Windows NT, where services run beside the desktop.
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
        WaitForSingleObject(ready.handle,
                            manager->clientKind == kAgentWaitingKind ? g_timings.agentReadyLong : g_timings.agentReady);
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    return true;
}
