// Database handles of the clients.
//
// One table for all, looked up without a lock. A handle is the value of a counter that starts at random, its place in
// the table are the counter's low bits; so no number comes again before 2^32 others, and one from another client, or
// from the service process before this one, is not found. State: the table in handles.cpp.
#pragma once

#include "database.h"

struct Group; // clients.h

// A handle for a database to come; nobody finds it yet. 0: no more of them for this user, or none at all.
DWORD ReserveHandle(Group& group);
// From here on it is found, and counts for the database.
void SetHandle(DWORD handle, Database& database);
void CancelHandle(Group& group, DWORD handle); // one that was not set

// How many of the group's are of that database.
DWORD HandlesOf(const Group& group, const Database& database);

// The database, or null: not a handle of this group.
Database* FindHandle(const Group& group, DWORD handle);
// Ends a handle and tells its database. False: not a handle of this group.
bool CloseHandleOf(Group& group, DWORD handle);
// Ends all of a group, none of whose calls is in progress.
void CloseAllHandles(Group& group);

// Chooses where the counter starts.
void InitialiseHandles();
