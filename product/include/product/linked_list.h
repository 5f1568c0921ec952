// Singly linked lists of records that have their own next pointer. No state. The caller holds the list's lock, which
// the lock analysis checks at the call: which lock that is, these functions cannot say.
#pragma once

#include "product/lock_analysis.h"

// Appends the record, which is on no list.
template <typename Record>
void AppendToList(Record** head, Record* record) NO_LOCK_ANALYSIS {
    while (*head != nullptr)
        head = &(*head)->next;
    record->next = nullptr;
    *head = record;
}

// Removes the first record for which matches(*record) is true, and returns it; null when there is none.
template <typename Record, typename Matches>
Record* TakeFromList(Record** head, Matches matches) NO_LOCK_ANALYSIS {
    for (; *head != nullptr; head = &(*head)->next) {
        Record* record = *head;
        if (!matches(*record)) continue;
        *head = record->next;
        record->next = nullptr;
        return record;
    }
    return nullptr;
}

// The first record for which matches(*record) is true; null when there is none.
template <typename Record, typename Matches>
Record* FindInList(Record* head, Matches matches) NO_LOCK_ANALYSIS {
    while (head != nullptr && !matches(*head))
        head = head->next;
    return head;
}

// Removes item, which must be in the list that begins at first. next: the member that links this list, for records that
// are in several.
template <typename Record>
void Unlink(Record*& first, Record* Record::*next, const Record& item) NO_LOCK_ANALYSIS {
    Record** link = &first;
    while (*link != &item)
        link = &((*link)->*next);
    *link = item.*next;
}
