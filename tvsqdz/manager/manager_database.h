// A database that a manager has open, for as long as the manager lives: across restarts of the service.
//
// A service does not know the handles of the one before it. A call through a ManagerDatabase that is answered so has
// the database opened again, once for each new service, and is repeated. It costs nothing as long as the service is the
// same. A conversation that makes sense with one service only (a watch and its end, a request and its answer) takes the
// handle out and uses the calls of client.h.
#pragma once

#include "product/client.h"

#include <atomic>

struct ManagerDatabase {
    std::atomic<DatabaseHandle> handle; // by which the service knows it; 0: not open
};
static_assert(sizeof(ManagerDatabase) == sizeof(DatabaseHandle));

// As the calls of client.h.
Answer GetDatabaseInfo(const ManagerDatabase& database, product::DatabaseInfo* info);
Answer WriteVariable(const ManagerDatabase& database, const char* name, const void* value, DWORD size);
Answer ReadVariable(const ManagerDatabase& database, const char* name, void* buffer, DWORD size, DWORD* valueSize);
Answer GetVariableInfo(const ManagerDatabase& database, const char* name, product::VariableInfo* info);
Answer GetWriteTime(const ManagerDatabase& database, const char* name, SYSTEMTIME* writeTime);
Answer GetWriteCount(const ManagerDatabase& database, const char* name, DWORD* writes);

// After a service did not know *handle. Done: it is another service than the one that gave the handle, and *handle is
// what it knows the database by. UnknownDatabase: it is the same one, or the database's manager is not open. Another
// answer: why the database could not be opened again. Defined with the opening of managers.
Answer FollowService(const ManagerDatabase& database, DatabaseHandle* handle);
