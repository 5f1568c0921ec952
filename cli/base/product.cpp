// Questions about the product. No state.
#include "base/product.h"

#include "base/layer.h"
#include "base/registry.h"
#include "base/text.h"

#include "product/client_kinds.h"
#include "product/desktop_agent.h"
#include "product/object_names.h"

#include <rpcnterr.h>

#include <vector>

namespace {

// " in /run/oriel (the system's product)".
std::string In(const std::string& directory) {
    if (directory.empty()) return "";
    const std::string scope = ScopeName();
    const char* whose = scope == "system" ? " (the system's product)" : scope == "user" ? " (your own product)" : "";
    return " in " + Printable(directory) + whose;
}

} // namespace

std::string HowToStart() {
    if (ScopeName() != "system") return "start it with 'oriel up'";
    return "start it as root with 'oriel up', or one of your own with 'oriel up --scope user'";
}

std::optional<std::string> InstalledDirectory() {
    return ReadText(HKEY_LOCAL_MACHINE, kProductKey, kDirectoryValue);
}

std::string OwnProgram() {
    std::string name(MAX_PATH, '\0');
    for (;;) {
        const DWORD length = GetModuleFileNameA(nullptr, name.data(), static_cast<DWORD>(name.size()));
        if (!length) throw SystemFailure(GetLastError(), "cannot find out where this program is");
        if (length < name.size()) {
            name.resize(length);
            return name;
        }
        name.resize(name.size() * 2);
    }
}

std::string OwnDirectory() {
    const std::string name = OwnProgram();
    return name.substr(0, name.rfind('\\') + 1);
}

std::string SharedName(const char* name) {
    return product::ObjectName(product::MachineIsTerminalServer(), name).text;
}

std::string SystemVersion() {
    OSVERSIONINFOA version{};
    version.dwOSVersionInfoSize = sizeof version;
    if (!GetVersionExA(&version)) return "unknown";
    return std::to_string(version.dwMajorVersion) + "." + std::to_string(version.dwMinorVersion) + "." +
           std::to_string(version.dwBuildNumber & 0xffff);
}

DWORD ServiceState() {
    const ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) return 0;
    const ServiceHandle service(OpenServiceA(manager.Get(), kServiceName, SERVICE_QUERY_STATUS));
    SERVICE_STATUS status{};
    return service && QueryServiceStatus(service.Get(), &status) ? status.dwCurrentState : 0;
}

const char* ServiceStateName(DWORD state) {
    switch (state) {
    case SERVICE_STOPPED:
        return "stopped";
    case SERVICE_START_PENDING:
        return "starting";
    case SERVICE_STOP_PENDING:
        return "stopping";
    case SERVICE_RUNNING:
        return "running";
    default:
        return "not installed";
    }
}

bool ProductInitialised() {
    const KernelHandle event(OpenEventA(SYNCHRONIZE, FALSE, SharedName(product::kProductInitialisedName).c_str()));
    return event && WaitForSingleObject(event.Get(), 0) == WAIT_OBJECT_0;
}

Failure WhyUnavailable(const std::string& what, uint32_t clientKind, DWORD lastError) {
    const ClientKind kind = KindOf(clientKind);
    Failure failure = StatusFailure(TVS_E_UNAVAILABLE, what);
    const std::optional<std::string> directory = InstalledDirectory();
    if (!directory) {
        failure.why = "no product is registered" + In(StateDirectoryName());
        failure.next = HowToStart();
    } else if (!FileExists((*directory + kServiceProgram).c_str())) {
        failure.why = "the registered directory " + ShownPath(ToUtf8(*directory)) + " has no " + kServiceProgram;
        failure.next = std::string("correct it: oriel reg set 'HKLM\\") + kProductKey + "' " + kDirectoryValue + " '" +
                       ToUtf8(OwnDirectory()) + "'";
    } else if (ServiceState() != SERVICE_RUNNING) {
        failure.why = "no status database service runs" + In(RunDirectoryName());
        failure.next = HowToStart();
    } else if (kind.needsProduct && !ProductInitialised()) {
        failure.why =
            "client kind " + std::to_string(clientKind) + " needs a running product, and only its service runs";
        failure.next = HowToStart() + ", or use another --kind";
    } else if (kind.startsAgent && !FileExists((*directory + product::kAgentExecutable).c_str())) {
        failure.exitCode = Exit::False;
        failure.why = "client kind " + std::to_string(clientKind) + " starts the desktop agent " +
                      product::kAgentExecutable + ", which is not installed";
        failure.next = "use another --kind";
    } else if (lastError == RPC_S_SERVER_UNAVAILABLE) {
        failure.exitCode = Exit::TimedOut;
        failure.why = "the status database service runs but does not answer";
        failure.next = "try again, or restart the product";
    } else if (lastError != ERROR_SUCCESS) {
        return StatusFailure(static_cast<int32_t>(lastError), what);
    } else if (kind.needsProduct) {
        failure.exitCode = Exit::False;
        failure.why = "client kind " + std::to_string(clientKind) + " cannot add a printer that nobody has opened yet";
        failure.next = "open it once with another --kind";
    } else {
        failure.exitCode = Exit::False;
        failure.next = "try again; 'oriel status' shows whether the service runs";
    }
    return failure;
}
