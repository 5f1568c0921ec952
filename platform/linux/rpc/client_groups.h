// What a server knows of its clients beyond single connections: association groups, each the connections of one client
// process, and users, whose connections and memory are counted.
#pragma once

#include <rpc.h>

#include <atomic>
#include <cstdint>
#include <sys/types.h>

namespace oriel::rpc {

inline constexpr unsigned kMaxUserConnections = 4096;      // a thread each; of one user id
inline constexpr unsigned kMaxConnections = 8192;          // of all
inline constexpr size_t kMaxUserBytes = 256 * 1024 * 1024; // in the buffers of one user's connections

struct User {
    uid_t id = 0;
    unsigned connections = 0;
    std::atomic<size_t> bytes{0};
    User* next = nullptr;
};

// One connection more of that user; null when there are enough, of the user's or of all, or no memory.
User* AdmitUser(uid_t id);
void DismissUser(User* user);

struct Group {
    uint32_t id = 0;
    // As the kernel names the client of the first connection. Only the same process may join.
    uid_t user = 0;
    pid_t process = 0;
    unsigned connections = 0;
    // Set by calls of the group, read by others and, once, by the last connection.
    std::atomic<PRPC_RUNDOWN> rundown{nullptr};
    std::atomic<void*> context{nullptr};
    Group* next = nullptr;
};

// id 0: a new group. Null: no such group of that process, or no memory.
Group* JoinGroup(uint32_t id, uid_t user, pid_t process);
// After the connection's last call has returned. The last one to leave runs the group down, on its thread.
void LeaveGroup(Group* group);

} // namespace oriel::rpc
