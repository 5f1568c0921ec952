#include "rpc_kit.h"
#include "base/timings.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

const RPC_SYNTAX_IDENTIFIER kTestInterface{
    {0x8d1f7a10, 0x52c4, 0x4a0e, {0x9d, 0x3b, 0x0f, 0x1e, 0x2d, 0x3c, 0x4b, 0x5a}}, {1, 2}};
const RPC_SYNTAX_IDENTIFIER kNdrSyntax{{0x8a885d04, 0x1ceb, 0x11c9, {0x9f, 0xe8, 0x08, 0x00, 0x2b, 0x10, 0x48, 0x60}},
                                       {2, 0}};
const RPC_SYNTAX_IDENTIFIER kUnknownInterface{{0x8d1f7a11, 0x52c4, 0x4a0e, {1, 2, 3, 4, 5, 6, 7, 8}}, {1, 0}};
RPC_CLIENT_INTERFACE g_testClient{
    .Length = sizeof g_testClient, .InterfaceId = kTestInterface, .TransferSyntax = kNdrSyntax};

namespace {

std::atomic<uint32_t> g_touches{0};
std::atomic<uint32_t> g_holding{0};
std::atomic<uint32_t> g_releases{0};
std::atomic<uint32_t> g_rundowns[16];

void RPC_ENTRY CountRundown(void* context) {
    ++g_rundowns[reinterpret_cast<uintptr_t>(context) % 16];
}

uint32_t Argument(PRPC_MESSAGE message) {
    if (message->BufferLength < sizeof(uint32_t)) RpcRaiseException(RPC_X_BAD_STUB_DATA);
    return *static_cast<uint32_t*>(message->Buffer);
}

uint8_t* ReplyBuffer(PRPC_MESSAGE message, size_t size) {
    message->BufferLength = static_cast<unsigned>(size);
    const RPC_STATUS status = I_RpcGetBuffer(message);
    if (status != RPC_S_OK) RpcRaiseException(status);
    return static_cast<uint8_t*>(message->Buffer);
}

void ReplyNumbers(PRPC_MESSAGE message, const std::vector<uint32_t>& numbers) {
    std::ranges::copy(numbers, reinterpret_cast<uint32_t*>(ReplyBuffer(message, numbers.size() * 4)));
}

void Echo(PRPC_MESSAGE message) {
    const void* request = message->Buffer;
    const unsigned size = message->BufferLength;
    std::memcpy(ReplyBuffer(message, size), request, size);
}

void Identify(PRPC_MESSAGE message) {
    ULONG process = 0, sameProcess = 0, level = 0;
    RPC_AUTHZ_HANDLE identity = nullptr;
    if (I_RpcBindingInqLocalClientPID(message->Handle, &process) != RPC_S_OK ||
        I_RpcBindingInqLocalClientPID(nullptr, &sameProcess) != RPC_S_OK || process != sameProcess ||
        RpcBindingInqAuthClientA(nullptr, &identity, nullptr, &level, nullptr, nullptr) != RPC_S_OK ||
        level != RPC_C_AUTHN_LEVEL_PKT_PRIVACY)
        RpcRaiseException(RPC_S_INTERNAL_ERROR);
    const std::string text = static_cast<const char*>(identity);
    const Bytes reply = Join({BytesOf(uint32_t{process}), Bytes(text.begin(), text.end())});
    std::ranges::copy(reply, ReplyBuffer(message, reply.size()));
}

void Monitor(PRPC_MESSAGE message) {
    const uintptr_t context = Argument(message);
    void* before = nullptr;
    if (I_RpcGetAssociationContext(nullptr, &before) != RPC_S_OK ||
        I_RpcMonitorAssociation(message->Handle, CountRundown, reinterpret_cast<void*>(context)) != RPC_S_OK)
        RpcRaiseException(RPC_S_INTERNAL_ERROR);
    ReplyNumbers(message, {static_cast<uint32_t>(reinterpret_cast<uintptr_t>(before))});
}

void Hold(PRPC_MESSAGE message) {
    const uint32_t before = g_releases;
    for (++g_holding; g_releases == before;)
        PauseMs(1);
    --g_holding;
    ReplyNumbers(message, {1});
}

RPC_DISPATCH_FUNCTION g_functions[kProcedureCount] = {
    Echo,
    [](PRPC_MESSAGE message) {
        const Bytes made = Pattern(Argument(message));
        std::ranges::copy(made, ReplyBuffer(message, made.size()));
    },
    [](PRPC_MESSAGE message) { RpcRaiseException(static_cast<RPC_STATUS>(Argument(message))); },
    [](PRPC_MESSAGE message) { Argument(message) == 0 ? throw std::bad_alloc() : throw 1; },
    Identify,
    [](PRPC_MESSAGE message) { ReplyNumbers(message, {++g_touches}); },
    Monitor,
    [](PRPC_MESSAGE message) {
        ReplyNumbers(message, {std::begin(g_rundowns), std::end(g_rundowns)});
    },
    Hold,
    [](PRPC_MESSAGE message) { ReplyNumbers(message, {++g_releases}); },
    [](PRPC_MESSAGE message) { ReplyNumbers(message, {g_holding}); },
};
RPC_DISPATCH_TABLE g_table{kProcedureCount, g_functions, 0};
RPC_SERVER_INTERFACE g_server{
    .Length = sizeof g_server, .InterfaceId = kTestInterface, .TransferSyntax = kNdrSyntax, .DispatchTable = &g_table};

RPC_CSTR Text(const std::string& text) {
    return reinterpret_cast<RPC_CSTR>(const_cast<char*>(text.c_str()));
}

} // namespace

RPC_STATUS ServeOn(const std::string& endpoint) {
    RPC_STATUS status =
        RpcServerUseProtseqEpA(Text("ncalrpc"), RPC_C_PROTSEQ_MAX_REQS_DEFAULT, Text(endpoint), nullptr);
    if (status == RPC_S_OK)
        status = RpcServerRegisterIf2(&g_server, nullptr, nullptr, RPC_IF_ALLOW_LOCAL_ONLY,
                                      RPC_C_LISTEN_MAX_CALLS_DEFAULT, static_cast<unsigned>(-1), nullptr);
    if (status == RPC_S_ALREADY_REGISTERED) status = RPC_S_OK;
    if (status == RPC_S_OK) status = RpcServerListen(1, RPC_C_LISTEN_MAX_CALLS_DEFAULT, TRUE);
    return status;
}

RPC_STATUS StopServing() {
    const RPC_STATUS status = RpcMgmtStopServerListening(nullptr);
    return status == RPC_S_OK ? RpcMgmtWaitServerListen() : status;
}

CHILD_PROCESS(RpcServer) {
    const RPC_STATUS serves = ServeOn(child.arguments[0]);
    child.Say(serves == RPC_S_OK ? "ready" : std::to_string(serves));
    for (std::string order = child.Hear(); !order.empty(); order = child.Hear()) {
        RPC_STATUS result = RPC_S_OK;
        if (order == "release") ++g_releases;
        if (order == "stop") result = RpcMgmtStopServerListening(nullptr);
        if (order == "wait") result = RpcMgmtWaitServerListen();
        if (order == "listen") result = RpcServerListen(1, RPC_C_LISTEN_MAX_CALLS_DEFAULT, TRUE);
        if (order == "withdraw") result = RpcServerUnregisterIf(&g_server, nullptr, 1);
        if (order == "hurry") oriel::g_timings.rpcMessage = 500;
        child.Say(std::to_string(result));
    }
    return 0;
}

uint32_t Reply::Number(size_t index) const {
    EXPECT_GE(body.size(), index * 4 + 4) << "status " << status;
    return body.size() < index * 4 + 4 ? 0 : Get32(body, index * 4);
}

Bytes Pattern(size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(i * 7);
    return bytes;
}

TestBinding::TestBinding(const std::string& endpoint) {
    RPC_CSTR text = nullptr;
    EXPECT_EQ(RpcStringBindingComposeA(nullptr, Text("ncalrpc"), nullptr, Text(endpoint),
                                       Text("Security=impersonation static true"), &text),
              RPC_S_OK);
    EXPECT_EQ(RpcBindingFromStringBindingA(text, &handle), RPC_S_OK);
    RpcStringFreeA(&text);
}

Reply TestBinding::Call(unsigned procedure, const Bytes& request, RPC_CLIENT_INTERFACE& asked) const {
    RPC_MESSAGE message{};
    message.Handle = handle;
    message.DataRepresentation = 0x10;
    message.RpcInterfaceInformation = &asked;
    message.ProcNum = procedure;
    message.BufferLength = static_cast<unsigned>(request.size());
    Reply reply{I_RpcGetBuffer(&message), {}};
    if (reply.status != RPC_S_OK) return reply;
    if (!request.empty()) std::memcpy(message.Buffer, request.data(), request.size());
    if ((reply.status = I_RpcSendReceive(&message)) != RPC_S_OK) return reply;
    const auto* bytes = static_cast<const uint8_t*>(message.Buffer);
    reply.body.assign(bytes, bytes + message.BufferLength);
    EXPECT_EQ(I_RpcFreeBuffer(&message), RPC_S_OK);
    return reply;
}
