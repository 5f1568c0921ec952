// A database that a manager has open, across restarts of the service.
//
// A service does not know the handles that an earlier one gave out. When a call through a ManagerDatabase gets that
// answer, the database is opened again, once per new service, and the call is repeated. This costs nothing while the
// service stays the same. A conversation that makes sense with one service only (a watch and its end, a request and its
// answer) takes the handle out and uses the calls of product/client.h.
#pragma once

#include "product/client.h"

#include <atomic>

struct ManagerDatabase {
    std::atomic<DatabaseHandle> handle; // of the service; 0: not open
};
static_assert(sizeof(ManagerDatabase) == sizeof(DatabaseHandle));

// As the calls of product/client.h.
Answer GetDatabaseInfo(const ManagerDatabase& database, product::DatabaseInfo* info);
Answer WriteVariable(const ManagerDatabase& database, const char* name, const void* value, DWORD size);
Answer ReadVariable(const ManagerDatabase& database, const char* name, void* buffer, DWORD size, DWORD* valueSize);
Answer GetVariableInfo(const ManagerDatabase& database, const char* name, product::VariableInfo* info);
Answer GetWriteTime(const ManagerDatabase& database, const char* name, SYSTEMTIME* writeTime);
Answer GetWriteCount(const ManagerDatabase& database, const char* name, DWORD* writes);

// Called when a service did not know *handle. Done: the service is a new one, and *handle is the handle there.
// UnknownDatabase: the service is the same, or no open manager has the database. Other answers: why the database could
// not be opened again. Defined in exports/reopening.cpp.
Answer FollowService(const ManagerDatabase& database, DatabaseHandle* handle);
