// The service manager and the configuration of services. State: the registry.
#include "base/call.h"
#include "registry/changes.h"
#include "service/record.h"
#include "store/database.h"

#include <cstring>
#include <handleapi.h>

namespace oriel {
namespace {

constexpr RightsMap kManagerRights = {
    .read = STANDARD_RIGHTS_READ | SC_MANAGER_ENUMERATE_SERVICE | SC_MANAGER_QUERY_LOCK_STATUS,
    .write = STANDARD_RIGHTS_WRITE | SC_MANAGER_CREATE_SERVICE | SC_MANAGER_MODIFY_BOOT_CONFIG,
    .execute = STANDARD_RIGHTS_READ | SC_MANAGER_CONNECT | SC_MANAGER_LOCK,
    .all = SC_MANAGER_ALL_ACCESS};
constexpr DWORD kManagerReaders =
    READ_CONTROL | SC_MANAGER_CONNECT | SC_MANAGER_ENUMERATE_SERVICE | SC_MANAGER_QUERY_LOCK_STATUS;

constexpr RightsMap kServiceRights = {.read = STANDARD_RIGHTS_READ | SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS |
                                              SERVICE_INTERROGATE | SERVICE_ENUMERATE_DEPENDENTS,
                                      .write = STANDARD_RIGHTS_WRITE | SERVICE_CHANGE_CONFIG,
                                      .execute = STANDARD_RIGHTS_READ | SERVICE_START | SERVICE_STOP |
                                                 SERVICE_PAUSE_CONTINUE | SERVICE_USER_DEFINED_CONTROL,
                                      .all = SERVICE_ALL_ACCESS};
constexpr DWORD kServiceReaders =
    READ_CONTROL | SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_INTERROGATE | SERVICE_ENUMERATE_DEPENDENTS;

void DropManager(Object* object) {
    if (LastReference(object)) delete static_cast<ManagerObject*>(object);
}
void DropService(Object* object) {
    if (LastReference(object)) delete static_cast<ServiceObject*>(object);
}

// ERROR_FILE_NOT_FOUND when it is not configured.
DWORD FindConfiguration(const std::string& name) {
    HKEY key = nullptr;
    LSTATUS status = RegOpenKeyExA(HKEY_LOCAL_MACHINE, ServiceKeyPath(name).c_str(), 0, KEY_QUERY_VALUE, &key);
    if (status != ERROR_SUCCESS) return static_cast<DWORD>(status);
    status = RegQueryValueExA(key, "ImagePath", nullptr, nullptr, nullptr, nullptr);
    RegCloseKey(key);
    return static_cast<DWORD>(status);
}

DWORD OpenServiceHandle(const char* name, DWORD access, SC_HANDLE* handle) {
    DWORD granted = 0;
    const DWORD error = GrantRights(access, kServiceRights, kServiceReaders, StoreOf(Root::Machine), &granted);
    if (error != ERROR_SUCCESS) return error;
    *handle =
        static_cast<SC_HANDLE>(NewHandle(new ServiceObject{{&kServiceType}, name, FoldServiceName(name)}, granted));
    return *handle != nullptr ? ERROR_SUCCESS : GetLastError();
}

DWORD OpenNamedService(SC_HANDLE manager, const char* name, DWORD access, SC_HANDLE* handle) {
    const HandleUse<ManagerObject> use(manager, kManagerType, SC_MANAGER_CONNECT);
    if (!use) return GetLastError();
    const std::string folded = FoldServiceName(name);
    if (folded.empty()) return name != nullptr ? ERROR_INVALID_NAME : ERROR_INVALID_PARAMETER;
    DWORD error = FindConfiguration(name);
    if (error == ERROR_FILE_NOT_FOUND) {
        ServiceState state;
        error = ReadServiceState(folded, &state);
        if (error == ERROR_SUCCESS && !state.running) error = ERROR_SERVICE_DOES_NOT_EXIST;
    }
    if (error != ERROR_SUCCESS) return error;
    return OpenServiceHandle(name, access, handle);
}

struct ServiceConfiguration {
    const char* name;
    const char* displayName;
    DWORD type;
    DWORD start;
    DWORD errorControl;
    const char* path;
};

DWORD ConfigureService(const ServiceConfiguration& wanted) {
    if (wanted.type != SERVICE_WIN32_OWN_PROCESS || wanted.path == nullptr || *wanted.path == '\0' ||
        wanted.start < SERVICE_AUTO_START || wanted.start > SERVICE_DISABLED ||
        (wanted.errorControl != SERVICE_ERROR_IGNORE && wanted.errorControl != SERVICE_ERROR_NORMAL))
        return ERROR_INVALID_PARAMETER;
    const std::string path = ServiceKeyPath(wanted.name);
    const char* display = wanted.displayName != nullptr ? wanted.displayName : wanted.name;
    const auto set = [&path](const char* name, DWORD type, std::string data) {
        return RegistryChange{RegistryChange::kSetValue, Root::Machine, path, name, type, std::move(data)};
    };
    const RegistryChange changes[] = {
        {RegistryChange::kRequireAbsent, Root::Machine, path, "ImagePath"},
        set("Type", REG_DWORD, DwordData(wanted.type)),
        set("Start", REG_DWORD, DwordData(wanted.start)),
        set("ErrorControl", REG_DWORD, DwordData(wanted.errorControl)),
        set("ImagePath", REG_EXPAND_SZ, TextData(wanted.path)),
        set("DisplayName", REG_SZ, TextData(display)),
    };
    const LSTATUS status = ApplyChanges(changes);
    return status == ERROR_ALREADY_EXISTS ? ERROR_SERVICE_EXISTS : static_cast<DWORD>(status);
}

} // namespace

const ObjectType kManagerType{.name = "service manager", .drop = DropManager};
const ObjectType kServiceType{.name = "service", .drop = DropService};

std::string ServiceKeyPath(const std::string& name) {
    return "SYSTEM\\CurrentControlSet\\Services\\" + name;
}

} // namespace oriel

using namespace oriel;

SC_HANDLE WINAPI OpenSCManagerA(LPCSTR machine, LPCSTR database, DWORD access) {
    SC_HANDLE handle = nullptr;
    const DWORD error = CodeCall([&]() -> DWORD {
        if (machine != nullptr && *machine != '\0') return ERROR_NOT_SUPPORTED;
        if (database != nullptr && std::strcmp(database, SERVICES_ACTIVE_DATABASEA) != 0) return ERROR_INVALID_NAME;
        DWORD granted = 0;
        const DWORD refused =
            GrantRights(access | SC_MANAGER_CONNECT, kManagerRights, kManagerReaders, StoreOf(Root::Machine), &granted);
        if (refused != ERROR_SUCCESS) return refused;
        handle = static_cast<SC_HANDLE>(NewHandle(new ManagerObject{{&kManagerType}}, granted));
        return handle != nullptr ? ERROR_SUCCESS : GetLastError();
    });
    return Succeeds(error) ? handle : nullptr;
}

SC_HANDLE WINAPI OpenServiceA(SC_HANDLE manager, LPCSTR name, DWORD access) {
    SC_HANDLE handle = nullptr;
    return Succeeds(CodeCall([&] { return OpenNamedService(manager, name, access, &handle); })) ? handle : nullptr;
}

SC_HANDLE WINAPI CreateServiceA(SC_HANDLE manager, LPCSTR name, LPCSTR displayName, DWORD access, DWORD type,
                                DWORD start, DWORD errorControl, LPCSTR path, LPCSTR loadOrderGroup, LPDWORD tag,
                                LPCSTR dependencies, LPCSTR account, LPCSTR password) {
    SC_HANDLE handle = nullptr;
    const DWORD error = CodeCall([&]() -> DWORD {
        const HandleUse<ManagerObject> use(manager, kManagerType, SC_MANAGER_CREATE_SERVICE);
        if (!use) return GetLastError();
        if (name == nullptr || loadOrderGroup != nullptr || tag != nullptr || dependencies != nullptr ||
            account != nullptr || password != nullptr)
            return ERROR_INVALID_PARAMETER;
        if (FoldServiceName(name).empty()) return ERROR_INVALID_NAME;
        const DWORD refused = ConfigureService({name, displayName, type, start, errorControl, path});
        return refused == ERROR_SUCCESS ? OpenServiceHandle(name, access, &handle) : refused;
    });
    return Succeeds(error) ? handle : nullptr;
}

BOOL WINAPI DeleteService(SC_HANDLE service) {
    return Succeeds(CodeCall([&]() -> DWORD {
        const HandleUse<ServiceObject> use(service, kServiceType, DELETE);
        if (!use) return GetLastError();
        const DWORD error = FindConfiguration(use->name);
        if (error != ERROR_SUCCESS) return error == ERROR_FILE_NOT_FOUND ? ERROR_SERVICE_MARKED_FOR_DELETE : error;
        const RegistryChange removal{RegistryChange::kDeleteTree, Root::Machine, ServiceKeyPath(use->name)};
        return static_cast<DWORD>(ApplyChanges({&removal, 1}));
    }));
}

BOOL WINAPI CloseServiceHandle(SC_HANDLE object) {
    const HandlePin pin = PinHandle(object);
    const bool ours = pin.object != nullptr && (pin.object->type == &kManagerType || pin.object->type == &kServiceType);
    if (pin.object != nullptr) UnpinHandle(pin);
    return Succeeds(ours && CloseHandle(object) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE);
}

BOOL WINAPI QueryServiceStatus(SC_HANDLE service, LPSERVICE_STATUS status) {
    return Succeeds(CodeCall([&]() -> DWORD {
        const HandleUse<ServiceObject> use(service, kServiceType, SERVICE_QUERY_STATUS);
        if (!use) return GetLastError();
        if (status == nullptr) return ERROR_INVALID_PARAMETER;
        ServiceState state;
        const DWORD error = ReadServiceState(use->folded, &state);
        if (error == ERROR_SUCCESS) *status = state.status;
        return error;
    }));
}
