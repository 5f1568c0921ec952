// The published values of a database (product/published_values.h has their form): a section, its slots, and the record
// that tells clients that this service lives. A database that has no section is read by calls.
//
// A slot has a number from 1; 0 is a variable that is not published. The functions that change a slot's value belong
// between BeginSlot and EndSlot, under the writer's lock of its variable. The section is made, and slots are added,
// under the database's lock. A section that was replaced stays mapped until its database is released, since a writer
// may still be at it; each one is larger than those before it together.
//
// State: with each database; the record of life in publication.cpp.
#pragma once

#include "memory.h"

#include "product/published_values.h"

struct Publication;

// A section with room for that many slots, and for so many bytes of names and values; nobody can find it yet. Null: it
// cannot be had. The account is charged for it.
Publication* NewPublication(Account& account, std::string_view database, DWORD slots, DWORD bytes);
// Marks it as replaced. Null: does nothing.
void MarkReplaced(Publication* publication);
// Lets clients read it.
void MarkCurrent(Publication& publication);
void ReleasePublication(Publication* publication); // and those that it replaced
void KeepReplaced(Publication& publication, Publication* replaced);

std::string_view SectionName(const Publication& publication);
DWORD SectionSize(const Publication& publication);

// capacity: room for values of up to that size, from the start. 0: no room for it, or for its name.
DWORD AddSlot(Publication& publication, std::string_view name, product::DatabaseType type, DWORD room, DWORD capacity);

// sequence: the variable's own, odd.
void BeginSlot(Publication* publication, DWORD slot, DWORD sequence);
// False: the section has no room for the value, and sends readers to the service; a larger one would have.
bool PutValue(Publication* publication, DWORD slot, const BYTE* bytes, DWORD size);
void PutTime(Publication* publication, DWORD slot, ULONGLONG time);
void CountChange(Publication* publication, DWORD slot);
void EndSlot(Publication* publication, DWORD slot, DWORD sequence);
// At the end of a replacement: what the slot of the same number had.
void TakeOverChanges(Publication& publication, DWORD slot, const Publication* replaced, DWORD replacedSlot);
void PutCounts(Publication* publication, DWORD slot, product::WatchMode mode, DWORD pulses, DWORD watches);

// Tells clients that the service lives. Without this nothing is published.
void BeginPublishing(product::ServiceInstance run);
// Before the service stops answering.
void EndPublishing();
// Where clients see it. Empty: nothing is published.
std::string_view LifeName();
