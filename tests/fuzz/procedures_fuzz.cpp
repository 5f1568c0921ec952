// The procedures of the status database service, called over its interface. The input is a sequence of calls: u8
// number, u8 how, u8 length, and the bytes of the body. how, bit 0: the body begins with a handle that is good.
#include "clients.h"
#include "forwarding.h"
#include "fuzz.h"
#include "procedures.h"
#include "publication.h"
#include "signals.h"

#include <vector>

using namespace product;

namespace {

RPC_CLIENT_INTERFACE g_client = {
    sizeof(RPC_CLIENT_INTERFACE), kInterfaceSyntax, kNdrSyntax, nullptr, 0, nullptr, 0, nullptr, 0};
RPC_BINDING_HANDLE g_binding;
DWORD g_handle;

RPC_CSTR Text(const char* text) {
    return reinterpret_cast<RPC_CSTR>(const_cast<char*>(text));
}

// The reply; empty when the call failed.
std::vector<BYTE> Call(UINT procedure, std::string_view body) {
    RPC_MESSAGE message = {};
    message.Handle = g_binding;
    message.RpcInterfaceInformation = &g_client;
    message.ProcNum = procedure;
    message.BufferLength = static_cast<unsigned int>(body.size());
    message.DataRepresentation = 0x10;
    REQUIRE(I_RpcGetBuffer(&message) == RPC_S_OK);
    if (!body.empty()) std::memcpy(message.Buffer, body.data(), body.size());
    const RPC_STATUS status = I_RpcSendReceive(&message);
    REQUIRE(status == RPC_S_OK || status == RPC_X_BAD_STUB_DATA || status == RPC_S_PROCNUM_OUT_OF_RANGE);
    if (status != RPC_S_OK) return {};
    const auto* bytes = static_cast<const BYTE*>(message.Buffer);
    std::vector<BYTE> reply(bytes, bytes + message.BufferLength);
    I_RpcFreeBuffer(&message);
    REQUIRE(reply.size() >= sizeof(LONG));
    return reply;
}

std::string TextOf(std::string_view text) {
    const auto size = static_cast<DWORD>(text.size() + 1);
    std::string body(reinterpret_cast<const char*>(&size), sizeof size);
    body += std::string(sizeof(DWORD), '\0') + body + std::string(text) + '\0';
    body.resize((body.size() + 3) / 4 * 4);
    return body;
}

std::string NumbersOf(std::initializer_list<DWORD> numbers) {
    return {reinterpret_cast<const char*>(numbers.begin()), numbers.size() * sizeof(DWORD)};
}

void StartService() {
    PrivateMachine();
    InitialiseHandles();
    REQUIRE(StartForwarding() && StartSignals());
    BeginPublishing(1);
    REQUIRE(RpcServerUseProtseqEpA(Text(kProtocolSequence), RPC_C_PROTSEQ_MAX_REQS_DEFAULT, Text(kEndpoint), nullptr) ==
            RPC_S_OK);
    REQUIRE(RpcServerRegisterIf2(&g_serverInterface, nullptr, nullptr, RPC_IF_ALLOW_LOCAL_ONLY,
                                 RPC_C_LISTEN_MAX_CALLS_DEFAULT, 1 << 20, nullptr) == RPC_S_OK);
    REQUIRE(RpcServerListen(1, RPC_C_LISTEN_MAX_CALLS_DEFAULT, TRUE) == RPC_S_OK);
    RPC_CSTR text = nullptr;
    REQUIRE(RpcStringBindingComposeA(nullptr, Text(kProtocolSequence), nullptr, Text(kEndpoint), Text(kBindingOptions),
                                     &text) == RPC_S_OK);
    REQUIRE(RpcBindingFromStringBindingA(text, &g_binding) == RPC_S_OK);
    RpcStringFreeA(&text);
    const std::vector<BYTE> created = Call(kCreateDatabase, TextOf("D"));
    REQUIRE(created.size() == 2 * sizeof(DWORD));
    std::memcpy(&g_handle, created.data(), sizeof g_handle);
    for (const auto& [name, type] :
         {std::pair{"V", kTypeRecord}, {"Q", kTypeVariableLength}, {"All", kTypeComposite}}) {
        const DWORD size = type == kTypeComposite ? 0 : 4;
        Call(kCreateVariable, NumbersOf({g_handle}) + TextOf(name) +
                                  NumbersOf({static_cast<DWORD>(type), size, 0, size}) + std::string(size, 1));
    }
    Call(kEndDatabaseInitialization, NumbersOf({g_handle}));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (g_binding == nullptr) StartService();
    Input input(data, size);
    for (int calls = 0; !input.IsEmpty() && calls < 16; ++calls) {
        const UINT procedure = input.Take<uint8_t>() % 32;
        const auto how = input.Take<uint8_t>();
        const auto length = input.Take<uint8_t>();
        std::string body(input.Bytes(length));
        // The one that all use stays open. A forwarded request may wait as long as its answer takes.
        if (procedure == kForwardRequest || (procedure == kCloseDatabase && (how & 1) != 0)) continue;
        if ((how & 1) != 0) body.insert(0, NumbersOf({g_handle}));
        Call(procedure, body);
    }
    return 0;
}
