// A database that a manager has open, across restarts of the service, and with its published values.
//
// A service does not know the handles that an earlier one gave out. When a call through a ManagerDatabase gets that
// answer, the database is opened again, once per new service, and the call is repeated. This costs nothing while the
// service stays the same. A conversation that makes sense with one service only (a watch and its end, a request and its
// answer) takes the handle out and uses the calls of product/client.h.
//
// What is read comes from the published values (product/published_values.h) where the service lives and has them there,
// without a call and without a lock; otherwise by call, with the same results. No code may assume that a read is a
// call.
#pragma once

#include "product/client.h"
#include "product/published_values.h"

#include <atomic>

struct PublishedDatabase; // manager/published_database.cpp

// In a zero-filled block.
struct ManagerDatabase {
    std::atomic<DatabaseHandle> handle;                // of the service; 0: not open
    mutable std::atomic<PublishedDatabase*> published; // the newest, which may be of an earlier handle; null: none
    mutable std::atomic<DatabaseHandle> readByCalls;   // the handle whose values this process cannot map
    mutable std::atomic<DWORD> readers;                // threads that may be reading what is published
};

// A database that was just entered: its handle, and its published values.
void TakeDatabase(ManagerDatabase& database, const EnteredDatabase& entered);

// As the calls of product/client.h. Published values need no call.
Answer GetDatabaseInfo(const ManagerDatabase& database, product::DatabaseInfo* info);
Answer WriteVariable(const ManagerDatabase& database, const char* name, const void* value, DWORD size);
Answer ReadVariable(const ManagerDatabase& database, const char* name, void* buffer, DWORD size, DWORD* valueSize);
Answer GetVariableInfo(const ManagerDatabase& database, const char* name, product::VariableInfo* info);
Answer GetWriteTime(const ManagerDatabase& database, const char* name, SYSTEMTIME* writeTime);
Answer GetWriteCount(const ManagerDatabase& database, const char* name, DWORD* writes);

// The published values alone. False: ask the service.
bool FindPublishedState(const ManagerDatabase& database, const char* name, product::PublishedState* state);
// The same without any call, as long as what is mapped is current.
bool FindMappedState(const ManagerDatabase& database, const char* name, product::PublishedState* state);
// Whether the service that has this handle is known to live, which costs no call. False: it has to be asked.
bool ServiceIsKnownToLive(const ManagerDatabase& database);
// Releases what was mapped; nobody uses the database any more.
void ForgetPublished(ManagerDatabase& database);
// Unmaps what is mapped for managers to come. At the detach, when there are no managers.
void UnmapKeptSections();
// In a fork child, which maps afresh; what its parent had mapped stays in its memory.
void ForgetMappedSections();

// Called when a service did not know *handle. Done: the service is a new one, and *handle is the handle there.
// UnknownDatabase: the service is the same, or no open manager has the database. Other answers: why the database could
// not be opened again. Defined in exports/reopening.cpp.
Answer FollowService(const ManagerDatabase& database, DatabaseHandle* handle);
