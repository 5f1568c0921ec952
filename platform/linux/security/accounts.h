// Accounts: the SIDs of this system's users and groups. No state.
#pragma once

#include "security/credentials.h"
#include "security/records.h"

#include <string>
#include <string_view>

namespace oriel {

SidCopy SidOfUser(uid_t user);   // S-1-22-1-uid
SidCopy SidOfGroup(gid_t group); // S-1-22-2-gid

// All groups of these credentials, the effective one first.
std::vector<SidCopy> GroupsOf(const Credentials& credentials);

// Well-known groups and owners that are not accounts of this system.
struct WellKnownAccount {
    const char* alias; // two letters, as in SDDL
    const char* domain;
    const char* name;
    SID_NAME_USE use;
    SidCopy sid;
};
const WellKnownAccount* FindWellKnown(const SidCopy& sid);
const WellKnownAccount* FindWellKnownAlias(std::string_view alias);

// In the ANSI code page; empty when the user has no account. Throws std::bad_alloc.
std::string NameOfUser(uid_t user);

} // namespace oriel
