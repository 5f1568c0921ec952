#include "store/rights.h"

#include <winerror.h>

namespace oriel {

DWORD GrantRights(DWORD asked, const RightsMap& map, DWORD readers, const Database& store, DWORD* granted) {
    const DWORD kGeneric = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL;
    // A right to wait is in no kind, and harmless.
    DWORD rights = asked & ~(kGeneric | MAXIMUM_ALLOWED | SYNCHRONIZE);
    if ((rights & ~map.all) != 0) return ERROR_ACCESS_DENIED;
    if ((asked & GENERIC_READ) != 0) rights |= map.read;
    if ((asked & GENERIC_WRITE) != 0) rights |= map.write;
    if ((asked & GENERIC_EXECUTE) != 0) rights |= map.execute;
    if ((asked & GENERIC_ALL) != 0) rights |= map.all;
    const bool maximum = (asked & MAXIMUM_ALLOWED) != 0;
    if (maximum || (rights & ~readers) != 0) {
        const bool mayWrite = store.MayWrite();
        if (!mayWrite && (rights & ~readers) != 0) return ERROR_ACCESS_DENIED;
        if (maximum) rights |= mayWrite ? map.all : readers;
    }
    *granted = rights;
    return ERROR_SUCCESS;
}

} // namespace oriel
