#include "accounts.h"

#include "product/lock.h"

#include <new>
#include <string.h>

namespace {

Lock g_accountsLock;
Account* g_accounts GUARDED_BY(g_accountsLock) = nullptr;
DWORD g_accountCount GUARDED_BY(g_accountsLock) = 0;
std::atomic<SIZE_T> g_held[kShareCount];

bool Add(std::atomic<SIZE_T>& held, SIZE_T amount, SIZE_T limit) {
    SIZE_T before = held.load(std::memory_order_relaxed);
    do {
        if (amount > limit || before > limit - amount) return false;
    } while (!held.compare_exchange_weak(before, before + amount, std::memory_order_relaxed));
    return true;
}

bool HoldsNothing(const std::atomic<SIZE_T> (&held)[kShareCount]) {
    for (const std::atomic<SIZE_T>& share : held)
        if (share.load(std::memory_order_acquire) != 0) return false;
    return true;
}

// Nobody can charge an account without a client, so one that holds nothing stays that way.
void DropIdleAccounts() REQUIRES(g_accountsLock) {
    for (Account** link = &g_accounts; *link;) {
        Account* account = *link;
        if (account->clients == 0 && HoldsNothing(account->held)) {
            *link = account->next;
            delete account;
            --g_accountCount;
        } else {
            link = &account->next;
        }
    }
}

} // namespace

Account* EnterAccount(const char* user) {
    if (strlen(user) >= sizeof Account::user) return nullptr;
    LockHold hold{g_accountsLock};
    for (Account* account = g_accounts; account; account = account->next) {
        if (strcmp(account->user, user) == 0) {
            ++account->clients;
            return account;
        }
    }
    DropIdleAccounts();
    if (g_accountCount == kUsersMax) return nullptr;
    Account* account = new (std::nothrow) Account;
    if (!account) return nullptr;
    memcpy(account->user, user, strlen(user));
    account->clients = 1;
    account->next = g_accounts;
    g_accounts = account;
    ++g_accountCount;
    return account;
}

void LeaveAccount(Account* account) {
    LockHold hold{g_accountsLock};
    --account->clients;
}

bool Charge(Account& account, Share share, SIZE_T amount) {
    if (!Add(account.held[share], amount, kBounds[share].perUser)) return false;
    if (Add(g_held[share], amount, kBounds[share].inAll)) return true;
    account.held[share].fetch_sub(amount, std::memory_order_release);
    return false;
}

void GiveBack(Account& account, Share share, SIZE_T amount) {
    g_held[share].fetch_sub(amount, std::memory_order_relaxed);
    account.held[share].fetch_sub(amount, std::memory_order_release); // the last access: the account may go now
}

bool AccountsAreBalanced() {
    LockHold hold{g_accountsLock};
    DropIdleAccounts();
    return g_accounts == nullptr && HoldsNothing(g_held);
}
