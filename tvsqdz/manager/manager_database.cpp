#include "manager/manager_database.h"

namespace {

template <typename Call> // Answer(DatabaseHandle)
Answer Made(const ManagerDatabase& database, Call call) {
    DatabaseHandle handle = database.handle.load(std::memory_order_relaxed);
    const Answer answer = call(handle);
    if (answer != Answer::UnknownDatabase) return answer;
    const Answer followed = FollowService(database, &handle);
    return followed == Answer::Done ? call(handle) : followed;
}

} // namespace

Answer GetDatabaseInfo(const ManagerDatabase& database, product::DatabaseInfo* info) {
    return Made(database, [&](DatabaseHandle handle) { return GetDatabaseInfo(handle, info); });
}

Answer WriteVariable(const ManagerDatabase& database, const char* name, const void* value, DWORD size) {
    return Made(database, [&](DatabaseHandle handle) { return WriteVariable(handle, name, value, size); });
}

Answer ReadVariable(const ManagerDatabase& database, const char* name, void* buffer, DWORD size, DWORD* valueSize) {
    return Made(database, [&](DatabaseHandle handle) { return ReadVariable(handle, name, buffer, size, valueSize); });
}

Answer GetVariableInfo(const ManagerDatabase& database, const char* name, product::VariableInfo* info) {
    return Made(database, [&](DatabaseHandle handle) { return GetVariableInfo(handle, name, info); });
}

Answer GetWriteTime(const ManagerDatabase& database, const char* name, SYSTEMTIME* writeTime) {
    return Made(database, [&](DatabaseHandle handle) { return GetWriteTime(handle, name, writeTime); });
}

Answer GetWriteCount(const ManagerDatabase& database, const char* name, DWORD* writes) {
    return Made(database, [&](DatabaseHandle handle) { return GetWriteCount(handle, name, writes); });
}
