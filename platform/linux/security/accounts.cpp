// Accounts of the system's account database, queried each time, and a constant table of well-known ones. No state.
#include "security/accounts.h"

#include "base/call.h"
#include "text/names.h"

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <winbase.h>
#include <winnls.h>

namespace oriel {
namespace {

constexpr BYTE kUnixAuthority = 22;
constexpr DWORD kUnixUser = 1;
constexpr DWORD kUnixGroup = 2;
constexpr char kUserDomain[] = "Unix User";
constexpr char kGroupDomain[] = "Unix Group";
constexpr size_t kLargestEntry = 1U << 20;

constexpr BYTE kNtAuthority = 5;
constexpr DWORD kBuiltin = 32;

const WellKnownAccount kWellKnown[] = {
    {"WD", "", "Everyone", SidTypeWellKnownGroup, SidCopy(1, {0})},
    {"CO", "", "CREATOR OWNER", SidTypeWellKnownGroup, SidCopy(3, {0})},
    {"AU", "NT AUTHORITY", "Authenticated Users", SidTypeWellKnownGroup, SidCopy(kNtAuthority, {11})},
    {"BA", "BUILTIN", "Administrators", SidTypeAlias, SidCopy(kNtAuthority, {kBuiltin, 544})},
    {"BU", "BUILTIN", "Users", SidTypeAlias, SidCopy(kNtAuthority, {kBuiltin, 545})},
};
constexpr const char* kEverybodys[] = {"WD", "AU", "BU"};

// Calls `find` with a buffer of the size that getpwnam_r and its relatives need; returns what `take` makes of the
// entry.
template <typename Entry, typename Find, typename Take>
auto FromDatabase(Find find, Take take) {
    std::vector<char> buffer(1024);
    for (;;) {
        Entry entry{};
        Entry* found = nullptr;
        const int error = find(&entry, buffer.data(), buffer.size(), &found);
        if (error == EINTR) continue;
        if (error != ERANGE || buffer.size() >= kLargestEntry) return take(error == 0 ? found : nullptr);
        buffer.resize(buffer.size() * 2);
    }
}

std::string NameOfGroup(gid_t group) {
    return FromDatabase<struct group>(
        [=](auto... rest) { return getgrgid_r(group, rest...); },
        [](const struct group* found) { return found != nullptr ? Utf8ToAnsi(found->gr_name) : std::string(); });
}

struct Account {
    SidCopy sid;
    std::string domain;
    std::string name; // empty: none
    SID_NAME_USE use = SidTypeUser;
};

Account AccountOf(const SidCopy& sid) {
    if (const WellKnownAccount* known = FindWellKnown(sid)) return {sid, known->domain, known->name, known->use};
    if (sid.SubAuthorities() != 2) return {};
    if (sid == SidOfUser(sid.SubAuthority(1))) return {sid, kUserDomain, NameOfUser(sid.SubAuthority(1)), SidTypeUser};
    if (sid == SidOfGroup(sid.SubAuthority(1)))
        return {sid, kGroupDomain, NameOfGroup(sid.SubAuthority(1)), SidTypeGroup};
    return {};
}

bool SameText(const std::string& a, const std::string& b) {
    return lstrcmpiA(a.c_str(), b.c_str()) == 0;
}

// domain empty: any. Domains and names of the table compare without case, as on Windows; those of this system are
// exact.
Account AccountNamed(const std::string& domain, const std::string& name, bool anyDomain) {
    for (const WellKnownAccount& known : kWellKnown)
        if (SameText(name, known.name) && (anyDomain || SameText(domain, known.domain)))
            return {known.sid, known.domain, known.name, known.use};
    const std::string nameHere = AnsiToUtf8(name);
    Account account;
    if (anyDomain || SameText(domain, kUserDomain))
        account = FromDatabase<passwd>(
            [&](auto... rest) { return getpwnam_r(nameHere.c_str(), rest...); },
            [&](const passwd* found) {
                return found != nullptr ? Account{SidOfUser(found->pw_uid), kUserDomain, name, SidTypeUser} : Account{};
            });
    if (account.name.empty() && (anyDomain || SameText(domain, kGroupDomain)))
        account = FromDatabase<struct group>([&](auto... rest) { return getgrnam_r(nameHere.c_str(), rest...); },
                                             [&](const struct group* found) {
                                                 return found != nullptr ? Account{SidOfGroup(found->gr_gid),
                                                                                   kGroupDomain, name, SidTypeGroup}
                                                                         : Account{};
                                             });
    return account;
}

// An output with its size in and out: the size needed when it does not fit.
bool Fits(const void* buffer, DWORD room, DWORD needed) {
    return buffer != nullptr && room >= needed;
}

} // namespace

SidCopy SidOfUser(uid_t user) {
    return SidCopy(kUnixAuthority, {kUnixUser, user});
}

SidCopy SidOfGroup(gid_t group) {
    return SidCopy(kUnixAuthority, {kUnixGroup, group});
}

std::vector<SidCopy> GroupsOf(const Credentials& credentials) {
    std::vector<SidCopy> sids{SidOfGroup(credentials.group)};
    for (const gid_t group : credentials.groups)
        if (group != credentials.group) sids.push_back(SidOfGroup(group));
    for (const char* alias : kEverybodys)
        sids.push_back(FindWellKnownAlias(alias)->sid);
    if (credentials.user == 0) sids.push_back(FindWellKnownAlias("BA")->sid);
    return sids;
}

const WellKnownAccount* FindWellKnown(const SidCopy& sid) {
    for (const WellKnownAccount& known : kWellKnown)
        if (known.sid == sid) return &known;
    return nullptr;
}

const WellKnownAccount* FindWellKnownAlias(std::string_view alias) {
    for (const WellKnownAccount& known : kWellKnown)
        if (alias == known.alias) return &known;
    return nullptr;
}

std::string NameOfUser(uid_t user) {
    return FromDatabase<passwd>(
        [=](auto... rest) { return getpwuid_r(user, rest...); },
        [](const passwd* found) { return found != nullptr ? Utf8ToAnsi(found->pw_name) : std::string(); });
}

} // namespace oriel

using namespace oriel;

BOOL WINAPI LookupAccountSidA(LPCSTR system, PSID sid, LPSTR name, LPDWORD nameLength, LPSTR domain,
                              LPDWORD domainLength, PSID_NAME_USE use) {
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        if (nameLength == nullptr || domainLength == nullptr || use == nullptr) return Fail(ERROR_INVALID_PARAMETER);
        if (system != nullptr) return Fail(ERROR_NOT_SUPPORTED);
        const SidCopy copy(sid);
        if (!copy.Valid()) return Fail(ERROR_INVALID_SID);
        const Account account = AccountOf(copy);
        if (account.name.empty()) return Fail(ERROR_NONE_MAPPED);
        const DWORD nameSize = static_cast<DWORD>(account.name.size() + 1);
        const DWORD domainSize = static_cast<DWORD>(account.domain.size() + 1);
        const bool fits = Fits(name, *nameLength, nameSize) && Fits(domain, *domainLength, domainSize);
        *nameLength = fits ? nameSize - 1 : nameSize;
        *domainLength = fits ? domainSize - 1 : domainSize;
        if (!fits) return Fail(ERROR_INSUFFICIENT_BUFFER);
        std::memcpy(name, account.name.c_str(), nameSize);
        std::memcpy(domain, account.domain.c_str(), domainSize);
        *use = account.use;
        return TRUE;
    });
}

BOOL WINAPI LookupAccountNameA(LPCSTR system, LPCSTR accountName, PSID sid, LPDWORD sidLength, LPSTR domain,
                               LPDWORD domainLength, PSID_NAME_USE use) {
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        if (accountName == nullptr || sidLength == nullptr || domainLength == nullptr || use == nullptr)
            return Fail(ERROR_INVALID_PARAMETER);
        if (system != nullptr) return Fail(ERROR_NOT_SUPPORTED);
        const std::string whole = accountName;
        const size_t slash = whole.find('\\');
        const bool anyDomain = slash == std::string::npos;
        const Account account = anyDomain ? AccountNamed("", whole, true)
                                          : AccountNamed(whole.substr(0, slash), whole.substr(slash + 1), false);
        if (account.name.empty()) return Fail(ERROR_NONE_MAPPED);
        const DWORD domainSize = static_cast<DWORD>(account.domain.size() + 1);
        const bool fits = Fits(sid, *sidLength, account.sid.length) && Fits(domain, *domainLength, domainSize);
        *sidLength = account.sid.length;
        *domainLength = fits ? domainSize - 1 : domainSize;
        if (!fits) return Fail(ERROR_INSUFFICIENT_BUFFER);
        std::memcpy(sid, account.sid.bytes, account.sid.length);
        std::memcpy(domain, account.domain.c_str(), domainSize);
        *use = account.use;
        return TRUE;
    });
}
