// Access tokens: opening and querying them, and impersonation. State: a record for each open token, with the user and
// groups at the time of opening.
#include "base/call.h"
#include "kernel/process.h"
#include "security/accounts.h"
#include "security/credentials.h"

#include <cstring>
#include <processthreadsapi.h>
#include <securitybaseapi.h>
#include <vector>

namespace oriel {
namespace {

struct TokenObject : Object {
    Credentials credentials;
};

constexpr DWORD kTokenRights = READ_CONTROL | TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE;
constexpr DWORD kGroupAttributes = SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED;

void DropToken(Object* object) {
    if (LastReference(object)) delete static_cast<TokenObject*>(object);
}

constexpr ObjectType kTokenType{.name = "token", .drop = DropToken};

BOOL GiveToken(Credentials credentials, DWORD access, PHANDLE token) {
    auto* object = new TokenObject{{&kTokenType}, std::move(credentials)};
    const HANDLE handle = NewHandle(object, access);
    if (handle == nullptr) return FALSE;
    *token = handle;
    return TRUE;
}

// ERROR_SUCCESS, or why the request is refused.
DWORD Refusal(DWORD access, PHANDLE token) {
    if (token == nullptr) return ERROR_INVALID_PARAMETER;
    return access == 0 || (access & ~kTokenRights) != 0 ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
}

// Writes a record of `fixed` bytes and the SIDs after it; place(i, address) stores the address of the i-th SID in the
// fixed part.
template <typename Place>
BOOL GiveSids(const std::vector<SidCopy>& sids, size_t fixed, LPVOID information, DWORD length, PDWORD needed,
              Place place) {
    size_t whole = fixed;
    for (const SidCopy& sid : sids)
        whole += sid.length;
    *needed = static_cast<DWORD>(whole);
    if (length < whole || information == nullptr) return Fail(ERROR_INSUFFICIENT_BUFFER);
    std::memset(information, 0, fixed);
    auto* at = static_cast<BYTE*>(information) + fixed;
    for (size_t i = 0; i < sids.size(); ++i) {
        std::memcpy(at, sids[i].bytes, sids[i].length);
        place(i, at);
        at += sids[i].length;
    }
    return TRUE;
}

} // namespace
} // namespace oriel

using namespace oriel;

BOOL WINAPI OpenProcessToken(HANDLE process, DWORD access, PHANDLE token) {
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        if (const DWORD refusal = Refusal(access, token); refusal != ERROR_SUCCESS) return Fail(refusal);
        if (process == GetCurrentProcess()) return GiveToken(OwnCredentials(), access, token);
        const HandleUse<ProcessObject> use(process, kProcessType, PROCESS_QUERY_INFORMATION);
        if (!use) return FALSE;
        Credentials credentials;
        // HasEnded comes after the reading: from then on the number may belong to another process.
        if (!ProcessCredentials(static_cast<pid_t>(use->id), credentials) || HasEnded(*use.Get()))
            return Fail(ERROR_INVALID_PARAMETER);
        return GiveToken(std::move(credentials), access, token);
    });
}

BOOL WINAPI OpenThreadToken(HANDLE thread, DWORD access, BOOL, PHANDLE token) {
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        if (const DWORD refusal = Refusal(access, token); refusal != ERROR_SUCCESS) return Fail(refusal);
        if (thread != GetCurrentThread()) return Fail(ERROR_NOT_SUPPORTED);
        Credentials credentials;
        if (!ImpersonatedCredentials(credentials)) return Fail(ERROR_NO_TOKEN);
        return GiveToken(std::move(credentials), access, token);
    });
}

BOOL WINAPI GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS informationClass, LPVOID information,
                                DWORD length, PDWORD needed) {
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        if (needed == nullptr) return Fail(ERROR_INVALID_PARAMETER);
        const HandleUse<TokenObject> use(token, kTokenType, TOKEN_QUERY);
        if (!use) return FALSE;
        if (informationClass == TokenUser) {
            auto* user = static_cast<TOKEN_USER*>(information);
            return GiveSids({SidOfUser(use->credentials.user)}, sizeof *user, information, length, needed,
                            [&](size_t, PSID sid) { user->User.Sid = sid; });
        }
        if (informationClass != TokenGroups) return Fail(ERROR_INVALID_PARAMETER);
        const std::vector<SidCopy> sids = GroupsOf(use->credentials);
        auto* groups = static_cast<TOKEN_GROUPS*>(information);
        const size_t fixed = offsetof(TOKEN_GROUPS, Groups) + sids.size() * sizeof(SID_AND_ATTRIBUTES);
        return GiveSids(sids, fixed, information, length, needed, [&](size_t i, PSID sid) {
            groups->GroupCount = static_cast<DWORD>(sids.size());
            groups->Groups[i] = {sid, kGroupAttributes};
        });
    });
}

BOOL WINAPI ImpersonateLoggedOnUser(HANDLE token) {
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        const HandleUse<TokenObject> use(token, kTokenType, TOKEN_QUERY | TOKEN_DUPLICATE);
        if (!use) return FALSE;
        const DWORD error = ActAs(use->credentials);
        return error == ERROR_SUCCESS ? TRUE : Fail(error);
    });
}

BOOL WINAPI RevertToSelf(void) {
    return Call<BOOL>(FALSE, []() -> BOOL {
        const DWORD error = ActAsProcess();
        return error == ERROR_SUCCESS ? TRUE : Fail(error);
    });
}
