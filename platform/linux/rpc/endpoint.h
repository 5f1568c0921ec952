// Endpoints: names, and their Unix sockets RuntimeFolder("rpc")/NAME.
//
// The server of an endpoint holds a lock on RuntimeFolder("rpc")/.NAME.lock. The kernel drops it when the process dies,
// so the lock, not the socket file, says whether the endpoint is taken. A client trusts only a server that runs as
// root, as the owner of the run directory or as the client's own user, because any user may put files into a shared
// folder.
#pragma once

#include "rpc/channel.h"

#include <string>
#include <string_view>

namespace oriel::rpc {

// True for 1 to 64 letters, digits, '_', '-', '.', not beginning with '.'.
bool IsEndpointName(std::string_view name);

// Connects. RPC_S_SERVER_UNAVAILABLE: nobody listens, nobody trusted does, or not accepted in time.
// RPC_S_ACCESS_DENIED: no right to connect. RPC_S_OUT_OF_RESOURCES, RPC_S_OUT_OF_MEMORY.
RPC_STATUS ConnectToEndpoint(const std::string& name, int64_t deadline, int& socket);

// How long a send may wait for room in the socket, and a connect for room in the backlog.
void SetSendTime(int socket, int milliseconds);

// The server's side. Descriptors are -1 when absent.
struct Endpoint {
    std::string name;
    std::string path; // RuntimeFolder("rpc")
    int folder = -1;  // the same, open
    int lock = -1;
    int listener = -1; // bound; listening between RpcServerListen and the stop
};

// Claims the endpoint for this process: the lock, and a bound socket to which any user may connect. Leftovers of an
// earlier server are removed; anything that is not our socket, or on which somebody listens, stays.
// RPC_S_DUPLICATE_ENDPOINT, RPC_S_CANT_CREATE_ENDPOINT, RPC_S_OUT_OF_RESOURCES.
RPC_STATUS ClaimEndpoint(const std::string& name, Endpoint& endpoint);
// Recreates the socket of a claimed endpoint that has none.
RPC_STATUS BindEndpoint(Endpoint& endpoint);
// Closes the socket and removes its file; the claim stays.
void UnbindEndpoint(Endpoint& endpoint);

} // namespace oriel::rpc
