// Threads that act as other users, and lists that say what they may do.
#pragma once

#include "acting_user.h"
#include "machine.h"

// S-1-AUTHORITY-SUB-SUB...
Bytes Sid(uint8_t authority, const std::vector<uint32_t>& subAuthorities);
inline Bytes UserSid(uint32_t user) {
    return Sid(22, {1, user});
}
inline Bytes GroupSid(uint32_t group) {
    return Sid(22, {2, group});
}
inline const Bytes kEveryone = Sid(1, {0});
inline const Bytes kCreatorOwner = Sid(3, {0});
inline const Bytes kAdministrators = Sid(5, {32, 544});

struct Entry {
    uint8_t type; // 0 allows, 1 denies
    uint32_t mask;
    Bytes sid;
    uint8_t flags = 0;
};
// An ACL in the Windows form.
Bytes List(const std::vector<Entry>& entries);
