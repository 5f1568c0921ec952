// State: the table of handles, and the number of groups.
#include "clients.h"

#include "product/guards.h"

#include <sddl.h>

#include <exception>
#include <memory>
#include <new>
#include <random>
#include <string.h>

// ---- handles

namespace {

Lock g_handlesLock;

// A slot is free while its handle is 0. The other fields that a reader finds are valid when the handle is the same
// before and after.
struct Slot {
    std::atomic<DWORD> handle = 0;
    DWORD previousOfGroup GUARDED_BY(g_handlesLock) = 0;
    DWORD nextOfGroup GUARDED_BY(g_handlesLock) = 0;
    std::atomic<Group*> group = nullptr;
    std::atomic<Database*> database = nullptr;
};

constinit Slot g_slots[kHandleSlots]; // all zero: pages without handles take no memory
DWORD g_nextHandle GUARDED_BY(g_handlesLock) = 1;

Slot& SlotOf(DWORD handle) {
    return g_slots[handle % kHandleSlots];
}

void Free(Group& group, Slot& slot) REQUIRES(g_handlesLock) {
    DWORD& toThis =
        slot.previousOfGroup == kNoHandleSlot ? group.firstHandleSlot : g_slots[slot.previousOfGroup].nextOfGroup;
    toThis = slot.nextOfGroup;
    if (slot.nextOfGroup != kNoHandleSlot) g_slots[slot.nextOfGroup].previousOfGroup = slot.previousOfGroup;
    slot.handle.store(0, std::memory_order_release);
    GiveBack(*group.account, kShareHandles, 1);
}

} // namespace

void InitialiseHandles() {
    LockHold hold{g_handlesLock};
    try {
        g_nextHandle = std::random_device{}();
    } catch (const std::exception&) {
        g_nextHandle = GetTickCount() * 2654435761U; // enough to avoid mix-ups; handles are not secrets
    }
}

DWORD ReserveHandle(Group& group) {
    if (!Charge(*group.account, kShareHandles, 1)) return 0;
    LockHold hold{g_handlesLock};
    // At most half of the slots are in use: kBounds.
    while (g_nextHandle == 0 || SlotOf(g_nextHandle).handle.load(std::memory_order_relaxed) != 0)
        ++g_nextHandle;
    const DWORD handle = g_nextHandle++;
    Slot& slot = SlotOf(handle);
    slot.group.store(&group, std::memory_order_release);
    slot.database.store(nullptr, std::memory_order_release);
    slot.previousOfGroup = kNoHandleSlot;
    slot.nextOfGroup = group.firstHandleSlot;
    if (slot.nextOfGroup != kNoHandleSlot) g_slots[slot.nextOfGroup].previousOfGroup = handle % kHandleSlots;
    group.firstHandleSlot = handle % kHandleSlots;
    slot.handle.store(handle, std::memory_order_release);
    return handle;
}

void SetHandle(DWORD handle, Database& database) {
    database.openHandles.fetch_add(1);
    SlotOf(handle).database.store(&database, std::memory_order_release);
}

void CancelHandle(Group& group, DWORD handle) {
    LockHold hold{g_handlesLock};
    Free(group, SlotOf(handle));
}

Database* FindHandle(const Group& group, DWORD handle) {
    const Slot& slot = SlotOf(handle);
    if (handle == 0 || slot.handle.load(std::memory_order_acquire) != handle) return nullptr;
    const Group* owner = slot.group.load(std::memory_order_acquire);
    Database* database = slot.database.load(std::memory_order_acquire);
    return owner == &group && slot.handle.load(std::memory_order_relaxed) == handle ? database : nullptr;
}

DWORD HandlesOf(const Group& group, const Database& database) {
    LockHold hold{g_handlesLock};
    DWORD count = 0;
    for (DWORD slot = group.firstHandleSlot; slot != kNoHandleSlot; slot = g_slots[slot].nextOfGroup)
        count += g_slots[slot].database.load(std::memory_order_relaxed) == &database;
    return count;
}

bool CloseHandleOf(Group& group, DWORD handle) {
    Database* database = nullptr;
    {
        LockHold hold{g_handlesLock};
        database = FindHandle(group, handle);
        if (!database) return false;
        Free(group, SlotOf(handle));
    }
    HandleIsGone(*database, handle);
    return true;
}

void CloseAllHandles(Group& group) {
    for (;;) {
        DWORD handle = 0;
        {
            LockHold hold{g_handlesLock};
            if (group.firstHandleSlot == kNoHandleSlot) return;
            handle = g_slots[group.firstHandleSlot].handle.load(std::memory_order_relaxed);
        }
        CloseHandleOf(group, handle);
    }
}

// ---- groups

namespace {

Lock g_groupsLock; // serialises the first calls of processes
std::atomic<DWORD> g_groups;

// The process's last connection is gone, and its calls have returned.
void __RPC_API RunDown(void* context) {
    auto* group = static_cast<Group*>(context);
    DropWatches(*group);
    CloseAllHandles(*group);
    LeaveAccount(group->account);
    delete group;
    g_groups.fetch_sub(1);
}

Group* MakeGroup(const CallersAssociation& caller, RPC_STATUS* fault) {
    const char* user = nullptr;
    *fault = caller.User(&user);
    if (*fault != RPC_S_OK) return nullptr;
    Group* group = new (std::nothrow) Group;
    if (!group) {
        *fault = RPC_S_OUT_OF_MEMORY;
        return nullptr;
    }
    group->account = EnterAccount(user);
    if (!group->account) {
        delete group;
        *fault = RPC_S_OUT_OF_RESOURCES;
        return nullptr;
    }
    *fault = caller.Monitor(RunDown, group);
    if (*fault != RPC_S_OK) {
        LeaveAccount(group->account);
        delete group;
        return nullptr;
    }
    g_groups.fetch_add(1);
    return group;
}

} // namespace

DatabaseUse::DatabaseUse(const Group& group, DWORD handle) NO_LOCK_ANALYSIS : m_database(FindHandle(group, handle)) {
    if (!m_database || m_database->state.load(std::memory_order_acquire) == DatabaseState::Ready) return;
    m_database->lock.Enter();
    // Another thread of the process may have closed the handle meanwhile, or made the database ready.
    const bool isOurs = FindHandle(group, handle) == m_database;
    const DatabaseState state = m_database->state.load(std::memory_order_relaxed);
    m_locked = isOurs && state == DatabaseState::Initialising;
    if (m_locked) return;
    m_database->lock.Leave();
    if (!isOurs || state == DatabaseState::GivenUp) m_database = nullptr;
}

DatabaseUse::~DatabaseUse() NO_LOCK_ANALYSIS {
    if (m_locked) m_database->lock.Leave();
}

bool NoClientsAreLeft() {
    return g_groups.load() == 0;
}

// ---- administrators

namespace {

constexpr char kGroupValue[] = "AdministratorsGroup";
// On Linux groups have a domain of their own, since a user may have the same name.
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

// Whether the caller is the user who runs the service, for whom a part of each share is reserved.
void LearnServiceUser(const Caller& caller, HANDLE token) {
    const bool is = IsServiceUser(token);
    if (is) caller.group.account->hasReserve = true;
    caller.group.serviceUser = is ? ServiceUser::Yes : ServiceUser::No;
}

} // namespace

bool IsAdministrator(const Caller& caller) {
    const std::atomic<ServiceUser>& known = caller.group.serviceUser;
    if (known.load() == ServiceUser::Yes) return true;
    KernelHandle token;
    if (!OpenClientsToken(caller, token)) return false;
    if (known.load() == ServiceUser::Unknown) LearnServiceUser(caller, token.Get());
    return known.load() == ServiceUser::Yes || IsAdministratorsToken(token.Get());
}

Group* CallingGroup(const CallersAssociation& caller, RPC_STATUS* fault) {
    void* context = nullptr;
    *fault = caller.Context(&context);
    if (*fault != RPC_S_OK || context) return static_cast<Group*>(context);
    LockHold hold{g_groupsLock};
    *fault = caller.Context(&context);
    if (*fault != RPC_S_OK || context) return static_cast<Group*>(context);
    Group* group = MakeGroup(caller, fault);
    if (group) {
        const Caller first{*group, caller};
        KernelHandle token;
        if (OpenClientsToken(first, token)) LearnServiceUser(first, token.Get());
    }
    return group;
}
