// PDUs made by hand, for a peer of the run-time that is not the run-time.
#pragma once

#include "campaign.h"
#include "rpc_kit.h"
#include "unix_stream.h"

#include <cstring>

enum : uint8_t { kFirst = 1, kLast = 2, kOnly = 3, kNotExecuted = 0x20, kMaybeCall = 0x40, kWithObject = 0x80 };
enum : uint8_t {
    kRequestPdu = 0,
    kResponsePdu = 2,
    kFaultPdu = 3,
    kBindPdu = 11,
    kBindAckPdu = 12,
    kBindNakPdu = 13,
    kAlterPdu = 14,
    kAlterAckPdu = 15,
    kAuth3Pdu = 16,
    kShutdownPdu = 17,
    kCancelPdu = 18,
    kOrphanedPdu = 19,
};

inline const RPC_SYNTAX_IDENTIFIER kNdr64{
    {0x71710533, 0xbeba, 0x4937, {0x83, 0x19, 0xb5, 0xdb, 0xef, 0x9c, 0xcc, 0x36}}, {1, 0}};
inline const RPC_SYNTAX_IDENTIFIER kFeatureNegotiation{{0x6cb71c2c, 0x9812, 0x4540, {3, 0, 0, 0, 0, 0, 0, 0}}, {1, 0}};

inline void Put16(Bytes& bytes, unsigned value) {
    bytes.push_back(static_cast<uint8_t>(value));
    bytes.push_back(static_cast<uint8_t>(value >> 8));
}

inline void Put32(Bytes& bytes, uint32_t value) {
    Put16(bytes, value & 0xFFFF);
    Put16(bytes, value >> 16);
}

inline void Put(Bytes& bytes, const RPC_SYNTAX_IDENTIFIER& id) {
    const auto* from = reinterpret_cast<const uint8_t*>(&id);
    bytes.insert(bytes.end(), from, from + sizeof id);
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
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

inline Bytes Changed(Bytes pdu, size_t at, uint8_t value) {
    pdu[at] = value;
    return pdu;
}

inline Bytes Pdu(uint8_t type, const Bytes& body, unsigned flags = kOnly, uint32_t callId = 1) {
    Bytes pdu{5, 0, type, static_cast<uint8_t>(flags), 0x10, 0, 0, 0};
    Put16(pdu, static_cast<unsigned>(16 + body.size()));
    Put16(pdu, 0);
    Put32(pdu, callId);
    return Join({pdu, body});
}

struct Offer {
    uint16_t id;
    RPC_SYNTAX_IDENTIFIER interfaceId;
    std::vector<RPC_SYNTAX_IDENTIFIER> transfers;
};

inline Bytes BindBody(const std::vector<Offer>& offers, uint32_t group = 0, unsigned sent = 4280,
                      unsigned received = 4280) {
    Bytes body;
    Put16(body, sent);
    Put16(body, received);
    Put32(body, group);
    Put32(body, static_cast<uint32_t>(offers.size()));
    for (const Offer& offer : offers) {
        Put16(body, offer.id);
        Put16(body, static_cast<unsigned>(offer.transfers.size()));
        Put(body, offer.interfaceId);
        for (const RPC_SYNTAX_IDENTIFIER& transfer : offer.transfers)
            Put(body, transfer);
    }
    return body;
}

inline Bytes GoodBind(uint32_t group = 0) {
    return Pdu(kBindPdu, BindBody({{0, kTestInterface, {kNdrSyntax}}}, group));
}

// Of a request or a response: allocation hint, context, procedure or cancel count, then the stub's bytes.
inline Bytes CallBody(unsigned context, unsigned procedure, const Bytes& stub, uint32_t hint = 0) {
    Bytes body;
    Put32(body, hint);
    Put16(body, context);
    Put16(body, procedure);
    return Join({body, stub});
}

inline Bytes Request(unsigned procedure, const Bytes& stub, unsigned flags = kOnly, uint32_t callId = 2,
                     unsigned context = 0) {
    return Pdu(kRequestPdu, CallBody(context, procedure, stub), flags, callId);
}

struct Result {
    unsigned result, reason;
    bool operator==(const Result&) const = default;
};

inline std::vector<Result> ResultsOf(const Bytes& ack) {
    size_t at = 26 + Get16(ack, 24);
    at = (at + 3) / 4 * 4;
    std::vector<Result> results;
    for (unsigned i = 0; at < ack.size() && i < ack[at]; ++i)
        results.push_back({Get16(ack, at + 4 + i * 24), Get16(ack, at + 6 + i * 24)});
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

// Systematic damage: every byte, every aligned number, every length near the true one (of these a part, outside a
// campaign), every beginning.
template <typename Function>
void ForEachDamage(const Bytes& good, Function function) {
    int changes = 0;
    const auto change = [&](size_t at, uint32_t value, size_t size) {
        if (++changes % Rounds(5, 1) != 0) return;
        Bytes bad = good;
        std::memcpy(bad.data() + at, &value, size);
        if (bad != good) function(bad);
    };
    for (size_t at = 0; at < good.size(); ++at)
        for (const unsigned value : {0x00, 0x01, 0x7F, 0x80, 0xFF, good[at] ^ 0x01, good[at] ^ 0x80, good[at] + 1})
            change(at, value, 1);
    for (size_t at = 0; at + 4 <= good.size(); at += 4) {
        const uint32_t value = Get32(good, at);
        for (const uint32_t changed : {0U, 1U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU, 0xFFFFFFFEU, value + 1, value - 1,
                                       value * 2, ~value, __builtin_bswap32(value)})
            change(at, changed, 4);
    }
    for (int difference = -42; difference <= 30; ++difference)
        change(8, static_cast<uint32_t>(static_cast<int>(good.size()) + difference), 2);
    for (size_t size = 0; size < good.size(); ++size)
        function(Bytes(good.begin(), good.begin() + static_cast<ptrdiff_t>(size)));
}
