// The server's records, shared by its files. State: server.cpp, server_interfaces.cpp, client_groups.cpp.
//
//   server.cpp             endpoints, listening, accepting, stopping
//   server_interfaces.cpp  registered interfaces
//   server_connection.cpp  the thread of a connection: binds, requests, replies
//   server_call.cpp        the calls of a dispatch function
//   client_groups.cpp      association groups and users
#pragma once

#include "base/list.h"
#include "rpc/binding.h"
#include "rpc/channel.h"
#include "rpc/client_groups.h"
#include "rpc/endpoint.h"

#include <atomic>
#include <sys/socket.h>

namespace oriel::rpc {

inline constexpr unsigned kMaxInterfaces = 32;
inline constexpr unsigned kMaxServerContexts = 16; // interfaces per connection
inline constexpr int kBacklog = 128;

// A slot for one interface, never reused for another.
struct OfferedInterface {
    RPC_SYNTAX_IDENTIFIER id{};
    // Null while not registered. A caller sets ServerConnection::calling first and then reads this; an unregistration
    // clears this first and then reads `calling`. The next two members change only in between.
    std::atomic<const RPC_SERVER_INTERFACE*> registered{nullptr};
    RPC_MGR_EPV* managers = nullptr;
    unsigned largestRequest = 0;
};

// One client's connection. Only its thread uses it, except for `calling` and, under the server's lock, the socket and
// the links. As a HandleRecord it is the call that the thread executes.
struct ServerConnection : HandleRecord {
    Channel channel;
    const Endpoint* endpoint = nullptr;
    ucred client{};
    char identity[24] = {}; // "uid:" and the number
    User* user = nullptr;
    Group* group = nullptr; // set by the bind

    std::atomic<const OfferedInterface*> calling{nullptr};
    bool replied = false; // the dispatch function has a buffer for its reply
    size_t replyRoom = 0;
    void(WINAPI* afterReply)() = nullptr; // of the call in progress
    struct {
        uint16_t id;
        const OfferedInterface* offered;
    } contexts[kMaxServerContexts];
    unsigned contextCount = 0;

    ServerConnection* next = nullptr;
    ServerConnection* previous = nullptr;
};

// The interface with that UUID, the same major version and at least the minor version. Null: none.
const OfferedInterface* FindInterface(const RPC_SYNTAX_IDENTIFIER& id);

// Serves the connection until its end and releases everything but the record.
void ServeConnection(ServerConnection& connection);
// Refuses a client that was not served.
void RefuseConnection(int socket);

// The connection whose call the thread executes, by handle, or with null the thread's own.
RPC_STATUS FindCall(RPC_BINDING_HANDLE handle, ServerConnection*& connection);
extern thread_local constinit ServerConnection* t_connection;

// True while a call of any connection uses the interface; takes the server's lock.
bool IsInUse(const OfferedInterface* offered);
// Removes a connection whose socket is about to be closed from the list.
void ForgetConnection(ServerConnection& connection);

// Thrown by RpcRaiseException, caught by the dispatcher.
struct Raised {
    RPC_STATUS status;
};

} // namespace oriel::rpc
