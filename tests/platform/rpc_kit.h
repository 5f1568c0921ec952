// A test interface, a server of it in a process of its own, calls to it, and PDUs made by hand for a peer of the
// run-time that is not the run-time.
#pragma once

#include "kit.h"
#include "unix_stream.h"

#include <rpc.h>

#include <algorithm>
#include <iterator>

// Procedures of the test interface. Numbers are u32.
//   kEcho         replies what it was sent
//   kMake         number n: replies n bytes, each the low byte of its offset times 7
//   kRaise        number: raises it
//   kThrow        number 0: throws std::bad_alloc, else an int
//   kIdentify     replies the client's process id and the text of its identity
//   kTouch        counts, and replies how often it was called
//   kMonitor      number: asks for a rundown with it, replies the one asked for before
//   kRundowns     replies how often each of the 16 contexts was run down, 16 numbers
//   kHold         does not return before kRelease was called
//   kRelease      lets all kHold return
//   kHolding      replies how many kHold are in progress
enum Procedure : unsigned {
    kEcho,
    kMake,
    kRaise,
    kThrow,
    kIdentify,
    kTouch,
    kMonitor,
    kRundowns,
    kHold,
    kRelease,
    kHolding,
    kProcedureCount
};

extern const RPC_SYNTAX_IDENTIFIER kTestInterface; // 8d1f7a10-52c4-4a0e-9d3b-0f1e2d3c4b5a, 1.2
extern const RPC_SYNTAX_IDENTIFIER kNdrSyntax;
extern const RPC_SYNTAX_IDENTIFIER kUnknownInterface;
extern RPC_CLIENT_INTERFACE g_testClient;

struct Reply {
    RPC_STATUS status = RPC_S_OK;
    Bytes body;
    uint32_t Number(size_t index = 0) const;
};

Bytes Pattern(size_t size); // as kMake makes it

struct TestBinding {
    explicit TestBinding(const std::string& endpoint = "test");
    ~TestBinding() { Free(); }
    TestBinding(const TestBinding&) = delete;
    void Free() { RpcBindingFree(&handle); }
    Reply Call(unsigned procedure, const Bytes& request = {}, RPC_CLIENT_INTERFACE& asked = g_testClient) const;
    // The first number of what the call replies, also on a thread of its own, whose connection is another.
    uint32_t Number(unsigned procedure, const Bytes& request = {}) const { return Call(procedure, request).Number(); }
    uint32_t NumberOnAThread(unsigned procedure, const Bytes& request = {}) const {
        return OnAThread([&] { return Number(procedure, request); });
    }
    RPC_BINDING_HANDLE handle = nullptr;
};

// A process that serves the test interface until it is told to stop.
struct TestServer : TestProcess {
    explicit TestServer(const std::string& endpoint = "test") : TestProcess(Ready("RpcServer", {endpoint})) {}
    // "stop", "wait", "listen", "withdraw", "release" of what is held, or "hurry": half a second for a message.
    RPC_STATUS Order(const std::string& order) { return Tell(order), static_cast<RPC_STATUS>(std::stol("0" + Hear())); }
    void Restart() { TestProcess::operator=(Ready("RpcServer", {"test"})); }
};

// In this process.
RPC_STATUS ServeOn(const std::string& endpoint);
RPC_STATUS StopServing(); // and waits until it has stopped

// ---- PDUs

enum : uint8_t { kFirst = 1, kLast = 2, kOnly = 3, kNotExecuted = 0x20, kMaybeCall = 0x40, kWithObject = 0x80 };
enum : uint8_t { kRequestPdu = 0, kResponsePdu = 2, kFaultPdu = 3, kBindPdu = 11, kBindAckPdu = 12, kBindNakPdu = 13 };
enum : uint8_t { kAlterPdu = 14, kAlterAckPdu, kShutdownPdu = 17, kCancelPdu, kOrphanedPdu };

inline const RPC_SYNTAX_IDENTIFIER kNdr64{
    {0x71710533, 0xbeba, 0x4937, {0x83, 0x19, 0xb5, 0xdb, 0xef, 0x9c, 0xcc, 0x36}}, {1, 0}};
inline const RPC_SYNTAX_IDENTIFIER kFeatureNegotiation{{0x6cb71c2c, 0x9812, 0x4540, {3, 0, 0, 0, 0, 0, 0, 0}}, {1, 0}};

// The bytes of records one after another, as this little-endian machine has them.
template <typename... Records>
Bytes BytesOf(const Records&... records) {
    Bytes all;
    const auto append = [&all](const void* record, size_t size) {
        std::copy_n(static_cast<const uint8_t*>(record), size, std::back_inserter(all));
    };
    (append(&records, sizeof records), ...);
    return all;
}

inline Bytes Number(uint32_t value) {
    return BytesOf(value);
}

inline unsigned Get16(const Bytes& bytes, size_t at) {
    return at + 2 <= bytes.size() ? bytes[at] | bytes[at + 1] << 8 : 0xFFFF;
}

inline uint32_t Get32(const Bytes& bytes, size_t at) {
    return Get16(bytes, at) | static_cast<uint32_t>(Get16(bytes, at + 2)) << 16;
}

inline Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts)
        std::copy(part.begin(), part.end(), std::back_inserter(all));
    return all;
}

inline Bytes Changed(Bytes pdu, size_t at, uint8_t value) {
    pdu[at] = value;
    return pdu;
}

inline Bytes Pdu(unsigned type, const Bytes& body, unsigned flags = kOnly, uint32_t callId = 1) {
    return Join({{5, 0, uint8_t(type), uint8_t(flags), 0x10, 0, 0, 0},
                 BytesOf(uint16_t(16 + body.size()), uint16_t{0}, callId),
                 body});
}

struct Offer {
    uint16_t id;
    RPC_SYNTAX_IDENTIFIER interfaceId;
    std::vector<RPC_SYNTAX_IDENTIFIER> transfers;
};

inline Bytes BindBody(const std::vector<Offer>& offers, uint32_t group = 0, uint16_t sent = 4280,
                      uint16_t received = 4280) {
    Bytes body = BytesOf(sent, received, group, uint32_t(offers.size()));
    for (const Offer& offer : offers) {
        body = Join({body, BytesOf(offer.id, uint16_t(offer.transfers.size()), offer.interfaceId)});
        for (const RPC_SYNTAX_IDENTIFIER& transfer : offer.transfers)
            body = Join({body, BytesOf(transfer)});
    }
    return body;
}

inline Bytes GoodBind(uint32_t group = 0) {
    return Pdu(kBindPdu, BindBody({{0, kTestInterface, {kNdrSyntax}}}, group));
}

// Of a request or a response: allocation hint, context, procedure or cancel count, then the stub's bytes.
inline Bytes CallBody(unsigned context, unsigned procedure, const Bytes& stub, uint32_t hint = 0) {
    return Join({BytesOf(hint, uint16_t(context), uint16_t(procedure)), stub});
}

inline Bytes Request(unsigned procedure, const Bytes& stub, unsigned flags = kOnly, uint32_t callId = 2,
                     unsigned context = 0) {
    return Pdu(kRequestPdu, CallBody(context, procedure, stub), flags, callId);
}

// "result.reason" of each context of a bind-ack, with a blank behind it.
inline std::string ResultsOf(const Bytes& ack) {
    const size_t at = (26 + Get16(ack, 24) + 3) / 4 * 4;
    std::string results;
    for (unsigned i = 0; at < ack.size() && i < ack[at]; ++i)
        results +=
            std::to_string(Get16(ack, at + 4 + i * 24)) + "." + std::to_string(Get16(ack, at + 6 + i * 24)) + " ";
    return results;
}

inline unsigned TypeOf(const Bytes& pdu) {
    return pdu.size() >= 16 ? pdu[2] : 0xFF;
}

inline uint32_t FaultOf(const Bytes& pdu) {
    return TypeOf(pdu) == kFaultPdu ? Get32(pdu, 24) : 0;
}

inline Bytes StubOf(const Bytes& pdu) {
    return TypeOf(pdu) == kResponsePdu && pdu.size() >= 24 ? Bytes(pdu.begin() + 24, pdu.end()) : Bytes();
}
