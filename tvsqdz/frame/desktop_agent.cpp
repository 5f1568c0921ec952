// The agent is known by its window, so that no second one is started. Keeps no state.
#include "frame/desktop_agent.h"

#include "dblink/desktop_agent.h"
#include "frame/client_kinds.h"
#include "frame/guards.h"
#include "frame/object_names.h"
#include "frame/registry_text.h"
#include "frame/timings.h"

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
    return lstrcmpiA(name, dblink::kInteractiveStation) == 0;
}

} // namespace

bool LaunchDesktopAgent(const ManagerRecord* manager) {
    if ((manager->flags & OsNtAny) != 0 && !HasDesktop()) return true;
    if (FindWindowA(dblink::kAgentWindowClass, nullptr) != nullptr) return true;

    const KernelHandle ready(CreateNamedEvent(dblink::AgentReadyName(manager->databaseName)));
    InstalledFile agent;
    if (!FindInstalledFile(dblink::kAgentExecutable, agent)) return false;
    char commandLine[sizeof agent.path + sizeof "\"\" " + sizeof dblink::kAgentSwitch];
    snprintf(commandLine, sizeof commandLine, "\"%s\" %s", agent.path, dblink::kAgentSwitch);
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
