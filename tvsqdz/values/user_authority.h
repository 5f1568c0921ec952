// What the calling user may do with a printer: bits TVS_AUTHORITY_*.
//
// Computed anew each time, normally from the printer's access control list and the token of the calling thread, or of
// the process where the thread impersonates nobody. Nothing is kept.
#pragma once

#include "manager/manager_database.h"
#include "manager/manager_record.h"

#include <stdint.h>

// The authority that every read of "UserAuthority" gives and every direct request is measured by.
uint32_t UserAuthority(const ManagerRecord* manager);

// The authority that a list gives to the calling user. acl: in the Windows form, aligned to 4 bytes; size: bytes that
// are there. 0 when the list is invalid, longer than that, or the user cannot be determined.
uint32_t AclAuthority(const void* acl, uint32_t size);

// The kind of the printer's port as it is stored; 0 when it cannot be read.
uint32_t StoredPortKind(const ManagerDatabase& database);
