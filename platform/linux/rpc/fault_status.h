// What a failed call is told as: the status codes of faults (C706, appendix E, and MS-RPCE 3.1.1.5.5), those of the
// Win32 API, and which of these a broken transfer is.
#pragma once

#include "rpc/channel.h"

#include <rpc.h>

#include <cstdint>

namespace oriel::rpc {

// What a fault is sent with for a status that a stub raised, and what I_RpcSendReceive returns for a fault that came.
// A code without a row travels as it is. A fault never becomes RPC_S_OK or a negative number, which would be taken for
// an answer of the procedure.
uint32_t FaultFromStatus(RPC_STATUS status);
RPC_STATUS StatusFromFault(uint32_t fault, bool didNotExecute);

// `lost`: what it means here that the connection broke or nothing came in time.
RPC_STATUS StatusFromTransfer(Transfer result, RPC_STATUS lost);

} // namespace oriel::rpc
