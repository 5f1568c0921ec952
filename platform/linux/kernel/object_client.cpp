// A process has a connection for each user that its threads act as when they open objects: the kernel tells the server
// who connected. State: the connections.
#include "kernel/object_client.h"

#include "base/call.h"
#include "base/directories.h"
#include "base/timings.h"
#include "objects/place.h"
#include "security/credentials.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>

namespace oriel {
namespace {

// For closing. Without an answer, the hold is given back later.
constexpr int64_t kCloseTimeNs = 1000 * kNsPerMs;
// For each look whether this thread is to be terminated.
constexpr int kSliceMs = 20;

constexpr DWORD kConnectionLost = ERROR_SERVICE_NOT_ACTIVE; // does not leave this file

struct Connection {
    int file = -1;
    uint32_t run = 0; // how many there were before
    uid_t user = 0;
    uint32_t sent = 0;     // number of the last request
    uint32_t answered = 0; // of the last reply
    uint32_t holds = 0;
    // To give back: of replies that nobody waited for any more, and closed while the server stood still. Further ones
    // stay until the process ends.
    uint32_t unwanted[64] = {};
    uint32_t unwantedCount = 0;
};

// A process seldom acts as more than one user. The first is for the most part its own.
constinit Connection g_connections[8] ORIEL_LOCK_CHECK(guarded_by(g_namesLock));

void Close(Connection& connection) {
    if (connection.file >= 0) close(connection.file);
    connection = {.run = connection.run + 1};
}

bool IsAlive(Connection& connection) {
    if (connection.file < 0) return false;
    char byte = 0;
    const ssize_t length = recv(connection.file, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT);
    if (length > 0 || (length < 0 && (errno == EAGAIN || errno == EINTR))) return true;
    Close(connection);
    return false;
}

// Takes the next record. ERROR_SUCCESS; ERROR_TIMEOUT; kConnectionLost when the connection has ended.
DWORD Receive(Connection& connection, int64_t deadline, ObjectReply& reply, Descriptor& memory) {
    for (;;) {
        // In recvmsg() it would also be woken when the server takes the request.
        pollfd input{connection.file, POLLIN, 0};
        poll(&input, 1, kSliceMs);
        int passed = -1;
        const ssize_t length = ReceiveReply(connection.file, MSG_DONTWAIT, reply, passed);
        Descriptor received(passed);
        if (length == ssize_t{sizeof reply} && reply.protocol == kObjectProtocol) {
            memory = std::move(received);
            return ERROR_SUCCESS;
        }
        if (length >= 0 || (errno != EAGAIN && errno != EINTR)) return kConnectionLost;
        if (MonotonicNs() >= deadline || TerminationAsked()) return ERROR_TIMEOUT;
    }
}

void Keep(Connection& connection, uint32_t hold) {
    if (connection.unwantedCount < std::size(connection.unwanted))
        connection.unwanted[connection.unwantedCount++] = hold;
}

// Waits for the reply to the last request. Others are second copies, from a server process that was killed after it had
// sent the first.
DWORD Await(Connection& connection, int64_t deadline, ObjectReply& reply, Descriptor& memory) {
    for (;;) {
        const DWORD error = Receive(connection, deadline, reply, memory);
        if (error != ERROR_SUCCESS) return error;
        if (reply.number != connection.sent || reply.number == connection.answered) continue;
        connection.answered = reply.number;
        return ERROR_SUCCESS;
    }
}

DWORD Transact(Connection& connection, int64_t deadline, ObjectRequest& request, ObjectReply& reply,
               Descriptor& memory) {
    // One request at a time: an earlier one may still be on its way, with nobody waiting for what it brings.
    if (connection.sent != connection.answered) {
        const DWORD error = Await(connection, deadline, reply, memory);
        if (error != ERROR_SUCCESS) return error;
        if (reply.hold != 0) Keep(connection, reply.hold);
    }
    request.number = connection.sent + 1;
    if (send(connection.file, &request, sizeof request, MSG_DONTWAIT | MSG_NOSIGNAL) != ssize_t{sizeof request})
        return errno == EAGAIN ? ERROR_TIMEOUT : kConnectionLost;
    connection.sent = request.number;
    return Await(connection, deadline, reply, memory);
}

DWORD CloseHold(Connection& connection, int64_t deadline, uint32_t hold, ObjectAction action) {
    ObjectRequest request{.action = action, .hold = hold};
    ObjectReply reply{};
    Descriptor memory;
    const DWORD error = Transact(connection, deadline, request, reply, memory);
    return error == ERROR_SUCCESS ? reply.error : error;
}

DWORD CloseUnwanted(Connection& connection, int64_t deadline) {
    while (connection.unwantedCount > 0) {
        const uint32_t hold = connection.unwanted[connection.unwantedCount - 1];
        const uint32_t before = connection.sent;
        const DWORD error = CloseHold(connection, deadline, hold, ObjectAction::Close);
        if (connection.sent != before) --connection.unwantedCount; // it will be executed once
        if (error == ERROR_TIMEOUT || error == kConnectionLost) return error;
    }
    return ERROR_SUCCESS;
}

DWORD Exchange(Connection& connection, int64_t deadline, ObjectRequest& request, ObjectReply& reply,
               Descriptor& memory) {
    const DWORD error = CloseUnwanted(connection, deadline);
    return error == ERROR_SUCCESS ? Transact(connection, deadline, request, reply, memory) : error;
}

DWORD Connect(Connection& connection, int64_t deadline, bool mayStart) {
    const std::string& directory = MakeRuntimeDirectory();
    if (directory.empty()) return ERROR_PATH_NOT_FOUND;
    for (;;) {
        DWORD error = ERROR_SUCCESS;
        Descriptor file = ConnectToObjects(directory, error);
        if (error == ERROR_SUCCESS) {
            connection.file = file.Release();
            connection.user = geteuid();
            return ERROR_SUCCESS;
        }
        if (error == ERROR_FILE_NOT_FOUND) {
            if (!mayStart) return error; // there are no objects
            if (OnlyLooks()) return ERROR_PATH_NOT_FOUND;
            const AsOwnProcess ourselves;
            error = StartObjectServer(directory, deadline);
            if (error != ERROR_SUCCESS) return error;
        } else if (error != ERROR_BUSY) {
            return error;
        } else {
            const timespec pause{0, kNsPerMs};
            nanosleep(&pause, nullptr);
        }
        if (MonotonicNs() >= deadline || TerminationAsked()) return ERROR_TIMEOUT;
    }
}

// The connection of the user that this thread acts as: open, or free for one. Null when there are too many.
Connection* Choose() ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    const uid_t user = geteuid();
    for (Connection& known : g_connections)
        if (known.file >= 0 && known.user == user) return &known;
    for (Connection& known : g_connections)
        if (known.holds == 0) {
            Close(known);
            return &known;
        }
    return nullptr;
}

Connection& Of(const ServerHold& hold) ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    return g_connections[hold.connection];
}

} // namespace

DWORD AskForObject(ObjectRequest request, ObjectAnswer& answer) {
    const int64_t deadline = MonotonicNs() + g_timings.objectServer * kNsPerMs;
    Connection* const connection = Choose();
    if (connection == nullptr) return ERROR_NO_SYSTEM_RESOURCES;
    // A connection may end under the first request: the server refused another one of this user, or was about to end. A
    // new connection to the next server, or none, tells which.
    constexpr int kTries = 5;
    for (int tries = 0; tries < kTries; ++tries) {
        DWORD error = ERROR_SUCCESS;
        if (connection->file < 0) error = Connect(*connection, deadline, request.action == ObjectAction::Create);
        if (error == ERROR_SUCCESS) error = Exchange(*connection, deadline, request, answer.reply, answer.memory);
        if (error == kConnectionLost) {
            Close(*connection);
            continue;
        }
        if (error == ERROR_SUCCESS) error = answer.reply.error;
        if (error != ERROR_SUCCESS) return error;
        if (!answer.memory.IsOpen()) { // this process may not have another descriptor
            Keep(*connection, answer.reply.hold);
            return ERROR_TOO_MANY_OPEN_FILES;
        }
        ++connection->holds;
        answer.hold = {static_cast<uint32_t>(connection - g_connections), connection->run, answer.reply.hold};
        return ERROR_SUCCESS;
    }
    return ERROR_NO_SYSTEM_RESOURCES;
}

bool GiveBack(ServerHold& hold, ObjectAction action) {
    Connection& connection = Of(hold);
    if (hold.number == 0 || connection.file < 0 || connection.run != hold.run) return true;
    const uint32_t before = connection.sent;
    const DWORD error = CloseHold(connection, MonotonicNs() + kCloseTimeNs, hold.number, action);
    if (error == ERROR_BUSY) return false;
    if (error == ERROR_TIMEOUT && connection.sent == before) Keep(connection, hold.number);
    if (error == kConnectionLost)
        Close(connection);
    else
        --connection.holds;
    hold.number = 0;
    return true;
}

bool IsInForce(const ServerHold& hold) {
    return IsAlive(Of(hold)) && Of(hold).run == hold.run;
}

bool IsOtherUsers(const ServerHold& hold) {
    return Of(hold).user != geteuid();
}

void ForgetConnections() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    for (Connection& connection : g_connections)
        Close(connection);
}

} // namespace oriel
