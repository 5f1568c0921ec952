// How a failed call is reported: the status codes of faults (C706, appendix E, and MS-RPCE 3.1.1.5.5), those of the
// Win32 API, and those of a broken transfer. No state.
#pragma once

#include "rpc/channel.h"

#include <cstdint>
#include <rpc.h>

namespace oriel::rpc {

// The code of the fault for a status that a stub raised, and the result of I_RpcSendReceive for a fault that was
// received. A code without a row is passed unchanged. A fault never becomes RPC_S_OK or a negative number, which would
// be taken for an answer of the procedure.
uint32_t FaultFromStatus(RPC_STATUS status);
RPC_STATUS StatusFromFault(uint32_t fault, bool didNotExecute);

// `lost`: the status when the connection broke or nothing came in time.
RPC_STATUS StatusFromTransfer(Transfer result, RPC_STATUS lost);

} // namespace oriel::rpc
