// The procedures of the interface: from the request's bytes to the reply's. State: which run of the service this is.
#pragma once

#include "product/interface.h"

// The interface as RpcServerRegisterIf2 takes it.
extern RPC_SERVER_INTERFACE g_serverInterface;

product::ServiceInstance ThisInstance();
