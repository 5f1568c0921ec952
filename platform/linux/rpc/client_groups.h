// A server's clients beyond single connections: association groups (the connections of one client process) and users
// (whose connections and memory are counted). State: client_groups.cpp.
#pragma once

#include <atomic>
#include <cstdint>
#include <rpc.h>
#include <sys/types.h>

namespace oriel::rpc {

inline constexpr unsigned kMaxUserConnections = 4096;      // one thread each; per user id
inline constexpr unsigned kMaxConnections = 8192;          // of all users
inline constexpr size_t kMaxUserBytes = 256 * 1024 * 1024; // in the buffers of one user's connections

struct User {
    uid_t id = 0;
    unsigned connections = 0;
    std::atomic<size_t> bytes{0};
    User* next = nullptr;
    User* previous = nullptr;
};

// Counts a connection of that user. Null when the user or all users together have enough, or out of memory.
User* AdmitUser(uid_t id);
void DismissUser(User* user);

struct Group {
    uint32_t id = 0;
    // The identity of the first connection's client, from the kernel. Only the same process may join.
    uid_t user = 0;
    pid_t process = 0;
    unsigned connections = 0;
    // Set by calls of the group, read by others and once by the last connection.
    std::atomic<PRPC_RUNDOWN> rundown{nullptr};
    std::atomic<void*> context{nullptr};
    Group* next = nullptr;
    Group* previous = nullptr;
};

// id 0: a new group. Null: that process has no such group, or out of memory.
Group* JoinGroup(uint32_t id, uid_t user, pid_t process);
// Called after the last call of the connection has returned. The last one to leave runs the group down, on its thread.
void LeaveGroup(Group* group);

} // namespace oriel::rpc
