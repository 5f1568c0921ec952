// What the calling user may do with a printer: bits TVS_AUTHORITY_*.
//
// Computed anew each time, normally from the printer's access control list and the token of the calling thread, or of
// the process where the thread impersonates nobody. Nothing is kept.
#pragma once

#include "base/memory.h"
#include "manager/manager_database.h"
#include "manager/manager_record.h"
#include "product/status.h"

#include <stdint.h>

// The authority that every read of "UserAuthority" gives and every direct request is measured by.
uint32_t UserAuthority(const ManagerRecord* manager);

// The authority that a list gives to the calling user. acl: in the Windows form, aligned to 4 bytes; size: bytes that
// are there. 0 when the list is invalid, longer than that, or the user cannot be determined.
uint32_t AclAuthority(const void* acl, uint32_t size);

// The kind of the printer's port as it is stored; 0 when it cannot be read.
uint32_t StoredPortKind(const ManagerDatabase& database);

// The printer's access control list as the service keeps it: the variable "AccessControlList", u32 length and then an
// ACL in the Windows form.

class AccessControlList {
public:
    AccessControlList() = default;
    ~AccessControlList() { FreeBlock(m_block); }
    AccessControlList(const AccessControlList&) = delete;
    AccessControlList& operator=(const AccessControlList&) = delete;

    // Reads it anew, with one call of the service for a list of ordinary size. TVS_OK, TVS_E_MEMORY or the answer of
    // the service; none is held then.
    Status Load(const ManagerDatabase& database);
    // The ACL, aligned to 4 bytes, and what is there of it: 0 bytes for a value that is all length or less.
    const void* Acl() const { return Value() + kLengthSize; }
    uint32_t AclSize() const { return m_size > kLengthSize ? m_size - kLengthSize : 0; }

private:
    void Drop();
    static constexpr uint32_t kLengthSize = sizeof(uint32_t);
    const BYTE* Value() const { return m_block != nullptr ? m_block : m_small; }

    uint32_t m_size = 0; // of the stored value
    BYTE* m_block = nullptr;
    alignas(8) BYTE m_small[512] = {};
};
