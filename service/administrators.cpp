#include "administrators.h"

#include "settings.h"

#include "product/guards.h"

#include <sddl.h>

#include <memory>
#include <new>
#include <string.h>

namespace {

constexpr char kGroupValue[] = "AdministratorsGroup";
// The groups of this system are a domain of their own, since a user may have the same name.
constexpr char kGroupDomain[] = "Unix Group\\";
constexpr const char* kDefaultGroups[] = {"Unix Group\\lpadmin", "Unix Group\\root"};
constexpr DWORD kGroupNameMax = 256;

// Records of the token with their SIDs behind them; null when they cannot be had.
using TokenBlock = std::unique_ptr<ULONGLONG[]>;

TokenBlock ReadToken(HANDLE token, TOKEN_INFORMATION_CLASS what) {
    DWORD size = 0;
    GetTokenInformation(token, what, nullptr, 0, &size);
    TokenBlock block{new (std::nothrow) ULONGLONG[size / sizeof(ULONGLONG) + 1]};
    if (block && !GetTokenInformation(token, what, block.get(), size, &size)) block.reset();
    return block;
}

bool OpenClientsToken(const Caller& caller, KernelHandle& token) {
    if (RpcImpersonateClient(caller.association.Binding()) != RPC_S_OK) return false;
    const BOOL opened = OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.Receive());
    RpcRevertToSelf();
    return opened;
}

bool IsServiceUser(HANDLE token) {
    KernelHandle own;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, own.Receive())) return false;
    const TokenBlock client = ReadToken(token, TokenUser);
    const TokenBlock service = ReadToken(own.Get(), TokenUser);
    return client && service &&
           EqualSid(reinterpret_cast<TOKEN_USER*>(client.get())->User.Sid,
                    reinterpret_cast<TOKEN_USER*>(service.get())->User.Sid);
}

struct SidRoom {
    alignas(DWORD) BYTE bytes[68]; // the longest has 15 sub-authorities
};

bool FindGroup(const char* name, SidRoom& sid) {
    char domain[kGroupNameMax];
    DWORD size = sizeof sid.bytes;
    DWORD domainSize = sizeof domain;
    SID_NAME_USE use = SidTypeUser;
    return LookupAccountNameA(nullptr, name, sid.bytes, &size, domain, &domainSize, &use) && use != SidTypeUser;
}

bool FindAdministratorsGroup(SidRoom& sid) {
    char name[sizeof kGroupDomain + kGroupNameMax] = {};
    if (ReadSetting(kGroupValue, REG_SZ, name + sizeof kGroupDomain - 1, kGroupNameMax)) {
        memcpy(name, kGroupDomain, sizeof kGroupDomain - 1);
        return FindGroup(name, sid) || FindGroup(name + sizeof kGroupDomain - 1, sid);
    }
    for (const char* group : kDefaultGroups)
        if (FindGroup(group, sid)) return true;
    return false;
}

bool BelongsTo(const TOKEN_GROUPS& groups, PSID sid) {
    for (DWORD i = 0; i < groups.GroupCount; ++i)
        if ((groups.Groups[i].Attributes & SE_GROUP_ENABLED) != 0 && EqualSid(groups.Groups[i].Sid, sid)) return true;
    return false;
}

bool BelongsToSystemAdministrators(const TOKEN_GROUPS& groups) {
    PSID sid = nullptr;
    if (!ConvertStringSidToSidA("BA", &sid)) return false;
    const bool belongs = BelongsTo(groups, sid);
    LocalFree(sid);
    return belongs;
}

bool IsAdministratorsToken(HANDLE token) {
    const TokenBlock block = ReadToken(token, TokenGroups);
    if (!block) return false;
    const auto& groups = *reinterpret_cast<const TOKEN_GROUPS*>(block.get());
    SidRoom sid;
    return BelongsToSystemAdministrators(groups) || (FindAdministratorsGroup(sid) && BelongsTo(groups, sid.bytes));
}

} // namespace

bool IsAdministrator(const Caller& caller) {
    std::atomic<ServiceUser>& known = caller.group.serviceUser;
    if (known.load() == ServiceUser::Yes) return true;
    KernelHandle token;
    if (!OpenClientsToken(caller, token)) return false;
    if (known.load() == ServiceUser::Unknown)
        known.store(IsServiceUser(token.Get()) ? ServiceUser::Yes : ServiceUser::No);
    return known.load() == ServiceUser::Yes || IsAdministratorsToken(token.Get());
}
