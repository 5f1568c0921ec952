// Where the authority comes from. Keeps nothing.
#include "values/user_authority.h"

#include "base/heap.h"
#include "base/platform_version.h"
#include "manager/variable_handlers.h"
#include "product/client_kinds.h"
#include "values/access_control_list.h"

#include <string.h>

namespace {

// The product's own port monitor works on everybody's behalf.
constexpr char kPortMonitorUser[] = "\\\\.\\kptmon";

constexpr uint32_t kAllAuthority = TVS_AUTHORITY_PRINT | TVS_AUTHORITY_OWN_JOBS | TVS_AUTHORITY_ALL_JOBS |
                                   TVS_AUTHORITY_DIRECT_READ | TVS_AUTHORITY_DIRECT_WRITE;
constexpr uint32_t kPollingAuthority = TVS_AUTHORITY_PRINT | TVS_AUTHORITY_OWN_JOBS | TVS_AUTHORITY_DIRECT_READ;
static_assert(kAllAuthority == 31 && kPollingAuthority == 11);

// What the component that serves such a port says; nothing when that cannot be read.
uint32_t StoredAuthority(const ManagerDatabase& database) {
    uint32_t authority = 0;
    DWORD size = 0;
    if (ReadVariable(database, "UserAuthority", &authority, sizeof authority, &size) != Answer::Done) return 0;
    return authority;
}

uint32_t PrinterAuthority(const ManagerRecord* manager) {
    if (strcmp(manager->userName, kPortMonitorUser) == 0) return kAllAuthority;
    AccessControlList list;
    if (list.Load(manager->printerDatabase) != TVS_OK) return TVS_AUTHORITY_PRINT;
    return AclAuthority(list.Acl(), list.AclSize());
}

} // namespace

uint32_t StoredPortKind(const ManagerDatabase& database) {
    TvsPortRecord port = {};
    DWORD size = 0;
    if (ReadVariable(database, "Port", &port, sizeof port, &size) != Answer::Done) return 0;
    return port.portKind;
}

uint32_t UserAuthority(const ManagerRecord* manager) {
    // A port of exactly this kind has an authority of its own; one with the bit among others has not.
    if (StoredPortKind(manager->printerDatabase) == TVS_PORT_NO_REQUESTS)
        return StoredAuthority(manager->printerDatabase);
    const bool polls = (g_processKindMask.load() & kPollingKindBit) != 0;
    // Without accounts everybody may do everything.
    if (SystemVersion().dwPlatformId == VER_PLATFORM_WIN32_WINDOWS) return polls ? kPollingAuthority : kAllAuthority;
    return polls ? kPollingAuthority : PrinterAuthority(manager);
}

uint32_t UserAuthorityRead(ManagerRecord* manager, void* buffer) {
    uint32_t authority = 0;
    if (buffer != nullptr) {
        authority = UserAuthority(manager);
        memcpy(buffer, &authority, sizeof authority);
    }
    return sizeof authority;
}
