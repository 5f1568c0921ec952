// The server's records, shared by its files:
//
//   server.cpp             endpoints, listening, accepting, the end of it
//   server_interfaces.cpp  what is offered
//   server_connection.cpp  the thread of a connection: binds, requests, replies
//   server_call.cpp        what a dispatch function calls
//   client_groups.cpp      association groups and users
#pragma once

#include "rpc/binding.h"
#include "rpc/channel.h"
#include "rpc/client_groups.h"
#include "rpc/endpoint.h"

#include <atomic>
#include <sys/socket.h>

namespace oriel::rpc {

inline constexpr unsigned kMaxInterfaces = 32;
inline constexpr unsigned kMaxServerContexts = 16; // interfaces that a client uses on one connection
inline constexpr int kBacklog = 128;

// A place for one interface, never given to another.
struct OfferedInterface {
    RPC_SYNTAX_IDENTIFIER id{};
    // Null while it is not offered. Whoever makes a call says so in ServerConnection::calling first and looks here
    // then; whoever withdraws it clears this first and looks there then. The two that follow change only in between.
    std::atomic<const RPC_SERVER_INTERFACE*> registered{nullptr};
    RPC_MGR_EPV* managers = nullptr;
    unsigned largestRequest = 0;
};

// One client's connection; its thread's alone but for `calling` and, under the server's lock, the socket and the links.
// As a HandleRecord it is the call that the thread is carrying out.
struct ServerConnection : HandleRecord {
    Channel channel;
    const Endpoint* endpoint = nullptr;
    ucred client{};
    char identity[24] = {}; // "uid:" and the number
    User* user = nullptr;
    Group* group = nullptr; // from the bind on

    std::atomic<const OfferedInterface*> calling{nullptr};
    bool replied = false; // the dispatch function has taken a buffer for its reply
    size_t replyRoom = 0;
    struct {
        uint16_t id;
        const OfferedInterface* offered;
    } contexts[kMaxServerContexts];
    unsigned contextCount = 0;

    ServerConnection* next = nullptr;
    ServerConnection* previous = nullptr;
};

// The interface that a client asks for by that id: same UUID and major version, at least its minor version. Null: none.
const OfferedInterface* FindInterface(const RPC_SYNTAX_IDENTIFIER& id);

// Serves the connection until its end and gives back all that it had but the record.
void ServeConnection(ServerConnection& connection);
// Refuses a client that was never served.
void RefuseConnection(int socket);

// The connection whose call the thread is carrying out, by handle or, with null, the thread's own.
RPC_STATUS FindCall(RPC_BINDING_HANDLE handle, ServerConnection*& connection);
extern thread_local constinit ServerConnection* t_connection;

// True while a call of any connection uses the interface; under the server's lock inside.
bool IsInUse(const OfferedInterface* offered);
// Takes a connection whose socket is about to be closed from the list.
void ForgetConnection(ServerConnection& connection);

// What RpcRaiseException throws, and the dispatcher catches.
struct Raised {
    RPC_STATUS status;
};

} // namespace oriel::rpc
