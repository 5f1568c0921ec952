// Endpoints: names, and the Unix sockets that stand for them, RuntimeFolder("rpc")/NAME.
//
// Who serves an endpoint holds a lock on RuntimeFolder("rpc")/.NAME.lock, which the kernel drops when the process dies:
// that, not the socket file, says whether the endpoint is taken. A client trusts a server that runs as root, as the
// owner of the run directory or as the client's own user, and no other, since any user of the machine may put files
// into a shared folder.
#pragma once

#include "rpc/channel.h"

#include <string>
#include <string_view>

namespace oriel::rpc {

// 1 to 64 letters, digits, '_', '-', '.'; not beginning with '.'.
bool IsEndpointName(std::string_view name);

// A connected socket. RPC_S_SERVER_UNAVAILABLE: nobody listens, or none that is trusted, or not accepted in time.
// RPC_S_ACCESS_DENIED: no right to connect. RPC_S_OUT_OF_RESOURCES, RPC_S_OUT_OF_MEMORY.
RPC_STATUS ConnectToEndpoint(const std::string& name, int64_t deadline, int& socket);

// How long a send may wait for room in the socket, and a connect for room in the backlog.
void SetSendTime(int socket, int milliseconds);

// A server's. Descriptors are -1 when there are none.
struct Endpoint {
    std::string name;
    std::string path; // RuntimeFolder("rpc")
    int folder = -1;  // the same, open
    int lock = -1;
    int listener = -1; // bound; listens between RpcServerListen and the stop
};

// Takes the endpoint for this process: the lock, and a bound socket that any user may connect to. What an earlier
// server left there is removed; anything that is not a socket of ours, or that somebody listens on, stays.
// RPC_S_DUPLICATE_ENDPOINT, RPC_S_CANT_CREATE_ENDPOINT, RPC_S_OUT_OF_RESOURCES.
RPC_STATUS ClaimEndpoint(const std::string& name, Endpoint& endpoint);
// Makes the socket of a claimed endpoint anew, when it has none.
RPC_STATUS BindEndpoint(Endpoint& endpoint);
// Closes the socket and removes its file; the claim stays.
void UnbindEndpoint(Endpoint& endpoint);

} // namespace oriel::rpc
