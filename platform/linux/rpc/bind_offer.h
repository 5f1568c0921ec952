// How a client's connection comes to an interface.
#pragma once

#include "rpc/association.h"

namespace oriel::rpc {

// Offers the interface as the connection's next context and waits for the answer: in a bind, when it is the first,
// which names `group` (0: asks for one) and on success sets it to the group granted; else in an alter-context.
// RPC_S_SERVER_UNAVAILABLE: no answer, or the connection is dead. groupUnknown: the server knows no such group.
RPC_STATUS OfferInterface(Connection& connection, const RPC_CLIENT_INTERFACE& interface, uint32_t& group,
                          bool& groupUnknown, int64_t deadline);

} // namespace oriel::rpc
