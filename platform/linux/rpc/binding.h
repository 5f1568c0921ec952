// What an RPC_BINDING_HANDLE points to: a client's binding, or the call that a server thread is executing.
#pragma once

#include <atomic>
#include <cstdint>
#include <rpc.h>
#include <string>

namespace oriel::rpc {

struct Association;

enum class HandleKind : uint32_t {
    Free = 0,
    Binding = 0x444E4942, // "BIND"
    Call = 0x4C4C4143,    // "CALL"
};

struct HandleRecord {
    HandleKind kind = HandleKind::Free;
};

struct Binding : HandleRecord {
    Association* association = nullptr;
    std::atomic<uint32_t> callTimeMs = 0; // 0: no limit
};

inline bool IsKind(RPC_BINDING_HANDLE handle, HandleKind kind) {
    return handle != nullptr && static_cast<const HandleRecord*>(handle)->kind == kind;
}

// I_RpcGetBuffer within a dispatch function (server_call.cpp).
RPC_STATUS GetReplyBuffer(RPC_MESSAGE& message);

// The endpoint of a string binding that RpcBindingFromStringBindingA accepts, or the reason for refusing it.
RPC_STATUS ParseStringBinding(const char* text, std::string& endpoint);

} // namespace oriel::rpc
