// String bindings and binding handles. No state; the bindings' connections are in association.cpp.
#include "rpc/binding.h"

#include "base/lock.h"
#include "rpc/association.h"
#include "rpc/endpoint.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace oriel::rpc {
namespace {

const char* Text(RPC_CSTR string) {
    return string != nullptr ? reinterpret_cast<const char*>(string) : "";
}

// Removes what precedes the separator; everything when there is none.
std::string_view TakeUntil(std::string_view& text, char separator) {
    const size_t end = text.find(separator);
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return taken;
}

// "Security=": how far a server may impersonate the client, whether its identity is tracked dynamically, and whether
// disabled privileges count. The kernel tells a server the identity that its client had when it connected: never
// anonymous, never dynamic.
bool IsSecurityOption(std::string_view value) {
    const std::string_view level = TakeUntil(value, ' ');
    const std::string_view tracking = TakeUntil(value, ' ');
    return (level == "impersonation" || level == "identification") && tracking == "static" &&
           (value == "true" || value == "false");
}

} // namespace

RPC_STATUS ParseStringBinding(const char* string, std::string& endpoint) {
    std::string_view text(string);
    if (text.find('@') != std::string_view::npos) return RPC_S_INVALID_STRING_UUID;
    if (text.find(':') == std::string_view::npos) return RPC_S_INVALID_STRING_BINDING;
    const std::string_view protocol = TakeUntil(text, ':');
    if (protocol != "ncalrpc")
        return protocol.starts_with("ncacn_") || protocol.starts_with("ncadg_") ? RPC_S_PROTSEQ_NOT_SUPPORTED
                                                                                : RPC_S_INVALID_RPC_PROTSEQ;
    if (text.find('[') == std::string_view::npos) return RPC_S_INVALID_ENDPOINT_FORMAT;
    if (!TakeUntil(text, '[').empty()) return RPC_S_INVALID_NET_ADDR;
    if (!text.ends_with(']')) return RPC_S_INVALID_STRING_BINDING;
    text.remove_suffix(1);

    std::string_view name = TakeUntil(text, ',');
    if (name.starts_with("endpoint=")) name.remove_prefix(strlen("endpoint="));
    if (!IsEndpointName(name)) return RPC_S_INVALID_ENDPOINT_FORMAT;
    while (!text.empty()) {
        std::string_view option = TakeUntil(text, ',');
        if (TakeUntil(option, '=') != "Security" || !IsSecurityOption(option)) return RPC_S_INVALID_NETWORK_OPTIONS;
    }
    endpoint = name;
    return RPC_S_OK;
}

} // namespace oriel::rpc

using namespace oriel;
using namespace oriel::rpc;

RPC_STATUS RPC_ENTRY RpcStringBindingComposeA(RPC_CSTR ObjUuid, RPC_CSTR Protseq, RPC_CSTR NetworkAddr,
                                              RPC_CSTR Endpoint, RPC_CSTR Options, RPC_CSTR* StringBinding) {
    if (*Text(ObjUuid) != 0) return RPC_S_INVALID_STRING_UUID;
    if (StringBinding == nullptr) return RPC_S_OK;
    TerminationHold hold;
    try {
        std::string text = std::string(Text(Protseq)) + ":" + Text(NetworkAddr);
        if (*Text(Endpoint) != 0 || *Text(Options) != 0) {
            text += "[";
            text += Text(Endpoint);
            if (*Text(Options) != 0) text += std::string(",") + Text(Options);
            text += "]";
        }
        *StringBinding = reinterpret_cast<RPC_CSTR>(strdup(text.c_str()));
    } catch (const std::bad_alloc&) {
        *StringBinding = nullptr;
    }
    return *StringBinding != nullptr ? RPC_S_OK : RPC_S_OUT_OF_MEMORY;
}

RPC_STATUS RPC_ENTRY RpcStringFreeA(RPC_CSTR* String) {
    if (String == nullptr) return RPC_S_INVALID_ARG;
    TerminationHold hold;
    free(*String);
    *String = nullptr;
    return RPC_S_OK;
}

RPC_STATUS RPC_ENTRY RpcBindingFromStringBindingA(RPC_CSTR StringBinding, RPC_BINDING_HANDLE* Handle) {
    if (StringBinding == nullptr || Handle == nullptr) return RPC_S_INVALID_STRING_BINDING;
    TerminationHold hold;
    *Handle = nullptr;
    try {
        std::string endpoint;
        const RPC_STATUS status = ParseStringBinding(Text(StringBinding), endpoint);
        if (status != RPC_S_OK) return status;
        auto binding = std::make_unique<Binding>();
        binding->association = OpenAssociation(endpoint);
        if (binding->association == nullptr) return RPC_S_OUT_OF_MEMORY;
        binding->kind = HandleKind::Binding;
        *Handle = binding.release();
        return RPC_S_OK;
    } catch (const std::bad_alloc&) {
        return RPC_S_OUT_OF_MEMORY;
    }
}

RPC_STATUS RPC_ENTRY RpcBindingFree(RPC_BINDING_HANDLE* Handle) {
    if (Handle == nullptr || !IsKind(*Handle, HandleKind::Binding)) return RPC_S_INVALID_BINDING;
    TerminationHold hold;
    auto* binding = static_cast<Binding*>(*Handle);
    *Handle = nullptr;
    CloseAssociation(*binding->association);
    binding->kind = HandleKind::Free;
    delete binding;
    return RPC_S_OK;
}

RPC_STATUS RPC_ENTRY RpcBindingSetOption(RPC_BINDING_HANDLE hBinding, ULONG option, ULONG_PTR optionValue) {
    if (!IsKind(hBinding, HandleKind::Binding)) return RPC_S_INVALID_BINDING;
    if (option != RPC_C_OPT_CALL_TIMEOUT) return RPC_S_CANNOT_SUPPORT;
    if (optionValue > UINT32_MAX) return RPC_S_INVALID_ARG;
    static_cast<Binding*>(hBinding)->callTimeMs.store(static_cast<uint32_t>(optionValue), std::memory_order_relaxed);
    return RPC_S_OK;
}
