// The client's connections: one for each thread that calls, all to one endpoint forming an association, which is what a
// server runs down when it is gone.
//
// A thread keeps its connection. When the thread ends, its connection waits for the next thread that needs one: the
// last one is never closed while the process holds a binding to the endpoint, for with it the server would take back
// what the process has open there.
#pragma once

#include "rpc/channel.h"

#include <string>

namespace oriel::rpc {

struct Association;

inline constexpr unsigned kMaxContexts = 8;        // interfaces that a thread uses on one connection
inline constexpr unsigned kMaxIdleConnections = 8; // of ended threads; one more is closed

// Belongs to the thread in whose list it is, or to none and is idle.
struct Connection {
    Channel channel; // no socket until it is first used, and after it was lost
    Association* association = nullptr;
    bool busy = false;            // between I_RpcGetBuffer and I_RpcFreeBuffer
    size_t room = 0;              // of the body that was asked for
    uint32_t callId = 0;          // the last one used
    int64_t deadline = kNever;    // of the call in preparation
    bool sendTimeIsShort = false; // the socket's, for a call with a deadline
    uint16_t contextId = 0;       // of the call in preparation: an index to what follows
    unsigned contextCount = 0;
    struct {
        RPC_SYNTAX_IDENTIFIER abstractSyntax;
        RPC_SYNTAX_IDENTIFIER transferSyntax;
    } contexts[kMaxContexts];

    uint32_t group = 0; // the association group it is in
    Connection* nextOfOwner = nullptr;
    Connection* next = nullptr; // of the association
    Connection* previous = nullptr;
};

// One binding more to an endpoint, one less. With the last, its connections end. Null: no memory.
Association* OpenAssociation(const std::string& endpoint);
void CloseAssociation(Association& association);

// A connection of the calling thread that is not busy, connected and bound to the interface, with contextId and
// deadline set. The statuses of I_RpcGetBuffer.
RPC_STATUS TakeConnection(Association& association, const RPC_CLIENT_INTERFACE& interface, int64_t deadline,
                          Connection*& connection);
// Connects it anew, after LoseConnection, by its deadline at the latest.
RPC_STATUS Establish(Connection& connection, const RPC_CLIENT_INTERFACE& interface);
// Closes its socket, after what went wrong on it.
void LoseConnection(Connection& connection);

} // namespace oriel::rpc
