// The access control list of a printer, and what its entries mean for this user. It is read from the service itself:
// the variable is write-only in the library. No state.
#pragma once

#include "base/opened_printer.h"

#include <windows.h>

// Whom an entry counts for, from the point of view of the user of this process.
enum class Counts { ForUser, ForGroup, ForOwners, NotForYou, NoAccount, OtherKind };

struct ListEntry {
    bool denies = false;
    DWORD mask = 0;
    std::string text;    // "(A;;SWRC;;;WD)", or its bytes when it is of another kind
    std::string account; // UTF-8, "Unix User\alice"; the SID when there is no such account; empty for another kind
    Counts counts = Counts::OtherKind;
};

// The list as it is stored, in the binary form. Throws Failure when it cannot be read.
Bytes ReadAccessControlList(const OpenedPrinter& printer);
// True when the list is valid and complete.
bool IsWholeList(const Bytes& list);
// "D:(A;;SWRC;;;WD)...". The list must be whole. Throws Failure for a list that has no text form.
std::string ListText(const Bytes& list);
// The entries of a whole list. Throws Failure when this user cannot be determined.
std::vector<ListEntry> ListEntries(const Bytes& list);

// The binary form of a text such as ListText returns. A UTF-8 account name may replace a SID. Throws Failure.
Bytes ParseListText(const std::string& text);

// "Unix User\alice", UTF-8: the user of this process.
std::string OwnAccountName();
