// The client's connections, one per calling thread. All connections to one endpoint form an association, which the
// server runs down when its last connection closes.
//
// A thread keeps its connection. When the thread ends, its connection becomes idle until another thread needs one. The
// last connection stays open while the process holds a binding to the endpoint; otherwise the server would release what
// the process has open there. State: association.cpp.
#pragma once

#include "rpc/channel.h"

#include <string>

namespace oriel::rpc {

struct Association;

inline constexpr unsigned kMaxContexts = 8;        // interfaces per connection
inline constexpr unsigned kMaxIdleConnections = 8; // of threads that ended; more are closed

// Owned by the thread in whose list it is; in no list while idle.
struct Connection {
    Channel channel; // no socket before its first use and after it was lost
    Association* association = nullptr;
    bool busy = false;            // between I_RpcGetBuffer and I_RpcFreeBuffer
    size_t room = 0;              // of the body asked for
    uint32_t callId = 0;          // the last one used
    bool isLate = false;          // a call was given up before its answer came
    int64_t deadline = kNever;    // of the call in preparation
    bool sendTimeIsShort = false; // SO_SNDTIMEO is short, for a call with a deadline
    uint16_t contextId = 0;       // of the call in preparation: an index into the next array
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

// Adds or removes a binding to an endpoint. Removing the last one closes its connections. Null: out of memory.
Association* OpenAssociation(const std::string& endpoint);
void CloseAssociation(Association& association);

// A connection of the calling thread that is not busy, connected and bound to the interface, with contextId and
// deadline set. Returns the statuses of I_RpcGetBuffer.
RPC_STATUS TakeConnection(Association& association, const RPC_CLIENT_INTERFACE& interface, int64_t deadline,
                          Connection*& connection);
// Reconnects after LoseConnection, before its deadline.
RPC_STATUS Establish(Connection& connection, const RPC_CLIENT_INTERFACE& interface);
// Closes its socket after an error on it.
void LoseConnection(Connection& connection);

} // namespace oriel::rpc
