// The two sides of the message calls (message.cpp): as a client makes them, and within a dispatch function.
#pragma once

#include <rpc.h>

namespace oriel::rpc {

RPC_STATUS GetRequestBuffer(RPC_MESSAGE& message); // client_call.cpp
RPC_STATUS SendRequest(RPC_MESSAGE& message);
RPC_STATUS FreeReply(RPC_MESSAGE& message);

RPC_STATUS GetReplyBuffer(RPC_MESSAGE& message); // server_call.cpp

} // namespace oriel::rpc
