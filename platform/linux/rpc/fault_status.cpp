// The table of fault codes and Win32 codes. No state.
#include "rpc/fault_status.h"

namespace oriel::rpc {
namespace {

struct Row {
    uint32_t fault;
    RPC_STATUS status;
};

// A status is sent as the code of its first row.
constexpr Row kRows[] = {
    {.fault = 0x1C010001, .status = RPC_S_COMM_FAILURE},          // comm_failure
    {.fault = 0x1C010002, .status = RPC_S_PROCNUM_OUT_OF_RANGE},  // op_rng_error
    {.fault = 0x1C010003, .status = RPC_S_UNKNOWN_IF},            // unk_if
    {.fault = 0x1C01000B, .status = RPC_S_PROTOCOL_ERROR},        // proto_error
    {.fault = 0x1C010014, .status = RPC_S_SERVER_TOO_BUSY},       // server_too_busy
    {.fault = 0x1C010017, .status = RPC_S_UNSUPPORTED_TYPE},      // unsupported_type
    {.fault = 0x1C000001, .status = RPC_S_ZERO_DIVIDE},           // fault_int_div_by_zero
    {.fault = 0x1C000002, .status = RPC_S_ADDRESS_ERROR},         // fault_addr_error
    {.fault = 0x1C000003, .status = RPC_S_FP_DIV_ZERO},           // fault_fp_div_zero
    {.fault = 0x1C000004, .status = RPC_S_FP_UNDERFLOW},          // fault_fp_underflow
    {.fault = 0x1C000005, .status = RPC_S_FP_OVERFLOW},           // fault_fp_overflow
    {.fault = 0x1C000006, .status = RPC_S_INVALID_TAG},           // fault_invalid_tag
    {.fault = 0x1C000007, .status = RPC_S_INVALID_BOUND},         // fault_invalid_bound
    {.fault = 0x1C00000C, .status = RPC_S_CALL_FAILED_DNE},       // manager_not_entered
    {.fault = 0x1C00000D, .status = RPC_S_CALL_CANCELLED},        // fault_cancel
    {.fault = 0x1C000012, .status = RPC_S_CALL_FAILED},           // fault_unspec
    {.fault = 0x1C000014, .status = RPC_X_PIPE_EMPTY},            // fault_pipe_empty
    {.fault = 0x1C000015, .status = RPC_X_PIPE_CLOSED},           // fault_pipe_closed
    {.fault = 0x1C000016, .status = RPC_X_WRONG_PIPE_ORDER},      // fault_pipe_order
    {.fault = 0x1C000017, .status = RPC_X_PIPE_DISCIPLINE_ERROR}, // fault_pipe_discipline
    {.fault = 0x1C00001A, .status = RPC_X_SS_CONTEXT_MISMATCH},   // fault_context_mismatch
    {.fault = 0x1C00001B, .status = RPC_S_SERVER_OUT_OF_MEMORY},  // fault_remote_no_memory
    {.fault = 0x1C00001B, .status = RPC_S_OUT_OF_MEMORY},         // seen from the client, the server is out of memory
    {.fault = 0x1C010013, .status = RPC_S_SERVER_OUT_OF_MEMORY},  // out_args_too_big
    {.fault = 0x1C000008, .status = RPC_S_PROTOCOL_ERROR},        // rpc_version_mismatch
    {.fault = 0x1C00001C, .status = RPC_S_PROTOCOL_ERROR},        // invalid_pres_context_id
    {.fault = 0x1C00000A, .status = RPC_S_CALL_FAILED_DNE},       // bad_actid
    {.fault = 0x1C000013, .status = RPC_S_COMM_FAILURE},          // fault_remote_comm_failure
};

// The upper eight bits of a code; such a code without a row means nothing to a caller.
constexpr uint32_t kProtocolCodes = 0x1C000000;

} // namespace

uint32_t FaultFromStatus(RPC_STATUS status) {
    for (const Row& row : kRows)
        if (row.status == status) return row.fault;
    return status > 0 ? static_cast<uint32_t>(status) : FaultFromStatus(RPC_S_CALL_FAILED);
}

RPC_STATUS StatusFromFault(uint32_t fault, bool didNotExecute) {
    RPC_STATUS status = static_cast<RPC_STATUS>(fault);
    for (const Row& row : kRows) {
        if (row.fault != fault) continue;
        status = row.status;
        break;
    }
    const bool unmapped = status == static_cast<RPC_STATUS>(fault);
    if (status <= 0 || (unmapped && (fault & 0xFF000000U) == kProtocolCodes)) status = RPC_S_CALL_FAILED;
    return didNotExecute && status == RPC_S_CALL_FAILED ? RPC_S_CALL_FAILED_DNE : status;
}

RPC_STATUS StatusFromTransfer(Transfer result, RPC_STATUS lost) {
    switch (result) {
    case Transfer::Done:
        return RPC_S_OK;
    case Transfer::Closed:
    case Transfer::Reset:
    case Transfer::TimedOut:
        return lost;
    case Transfer::NoMemory:
        return RPC_S_OUT_OF_MEMORY;
    case Transfer::Malformed:
    case Transfer::WrongVersion:
    case Transfer::Authenticated:
    case Transfer::TooLarge:
        break;
    }
    return RPC_S_PROTOCOL_ERROR;
}

} // namespace oriel::rpc
