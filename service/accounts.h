// Who uses how much of the service. An account per user, charged before something is made and given back when it is
// gone; the bounds are in bounds.h. State: the list of accounts and the sums of all, in accounts.cpp.
#pragma once

#include "bounds.h"

#include <atomic>

struct Account {
    Account* next = nullptr;
    DWORD clients = 0; // guarded by the list's lock
    std::atomic<SIZE_T> held[kShareCount] = {};
    char user[64] = {};
};

// The account of a user, by the text that the run-time gives for it; held until LeaveAccount. Null: too many users, a
// text too long, or no memory.
Account* EnterAccount(const char* user);
void LeaveAccount(Account* account);

// False, and nothing is charged, when the user's or everyone's bound would be passed.
bool Charge(Account& account, Share share, SIZE_T amount);
void GiveBack(Account& account, Share share, SIZE_T amount);

// Whether everything has been given back.
bool AccountsAreBalanced();
