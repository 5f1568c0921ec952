// The protocol data units of DCE 1.1 RPC, connection-oriented, version 5.0 (The Open Group, C706, chapter 12), as far
// as a local run-time without authentication needs them; bind-time feature negotiation as in MS-RPCE 3.3.1.5.3.
//
// Pure functions over bytes. Decoded bytes come from another process, so every length is checked here; a decoder that
// returns false has seen an invalid PDU. Integers are read in the byte order of the header and written little-endian.
// UUIDs and versions are RPC_SYNTAX_IDENTIFIERs in memory.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <rpc.h>
#include <span>
#include <string_view>
#include <vector>

// No padding.
inline bool operator==(const RPC_SYNTAX_IDENTIFIER& a, const RPC_SYNTAX_IDENTIFIER& b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

namespace oriel::rpc {

static_assert(std::endian::native == std::endian::little, "what is written in place is little-endian");

inline constexpr size_t kHeaderSize = 16;
inline constexpr size_t kCallHeaderSize = 24; // of a request and a response
inline constexpr size_t kFaultSize = 32;
inline constexpr size_t kObjectSize = 16; // an object UUID behind a request's header
inline constexpr uint16_t kSmallestFragment = 1432;
inline constexpr uint16_t kLargestFragment = 65528; // a multiple of 8 below 65536
inline constexpr uint32_t kLargestBody = 8 * 1024 * 1024;
inline constexpr uint32_t kLocalRepresentation = 0x10;

enum PduType : uint8_t {
    kRequest = 0,
    kResponse = 2,
    kFault = 3,
    kBind = 11,
    kBindAck = 12,
    kBindNak = 13,
    kAlterContext = 14,
    kAlterContextResponse = 15,
    kAuth3 = 16,
    kShutdown = 17,
    kCancel = 18,
    kOrphaned = 19,
};

enum PduFlags : uint8_t {
    kFirstFragment = 0x01,
    kLastFragment = 0x02,
    kOnlyFragment = kFirstFragment | kLastFragment,
    kDidNotExecute = 0x20,
    kMaybe = 0x40,
    kObjectUuid = 0x80,
};

// Offset 0: major version, minor version, type, flags; 4: representation label; 8: u16 fragment length, u16 length of
// the authentication trailer; 12: u32 call id.
struct Header {
    uint8_t majorVersion = 5;
    uint8_t minorVersion = 0;
    uint8_t type = 0;
    uint8_t flags = kOnlyFragment;
    uint32_t representation = kLocalRepresentation; // the label's four bytes, first byte lowest
    uint16_t fragmentLength = 0;
    uint16_t authLength = 0;
    uint32_t callId = 0;

    bool BigEndian() const { return (representation & 0xF0) == 0; }
    bool operator==(const Header&) const = default;
};

// Offset 16: u32 bytes of body from here on (a hint), 20: u16 context id, 22: u16 procedure number (request), or u8
// cancel count, u8 0 (response, fault).
struct CallHeader {
    uint32_t allocationHint = 0;
    uint16_t contextId = 0;
    uint16_t procedure = 0;
    bool operator==(const CallHeader&) const = default;
};

struct ContextElement {
    uint16_t id = 0;
    RPC_SYNTAX_IDENTIFIER abstractSyntax{};
    std::vector<RPC_SYNTAX_IDENTIFIER> transfers;
    bool operator==(const ContextElement&) const = default;
};

// Bind and alter-context, offset 16: u16 largest fragment sent, u16 received, u32 association group, u8 count, 3 zero
// bytes, then per element: u16 id, u8 count, u8 0, 20 bytes interface, count times 20 bytes transfer syntax.
struct Bind {
    uint16_t largestSent = kLargestFragment;
    uint16_t largestReceived = kLargestFragment;
    uint32_t group = 0;
    std::vector<ContextElement> elements;
    bool operator==(const Bind&) const = default;
};

enum ContextResultCode : uint16_t { kAccepted = 0, kProviderRejection = 2, kNegotiateAck = 3 };
enum RejectionReason : uint16_t {
    kReasonNotSpecified = 0,
    kInterfaceNotSupported = 1,
    kTransferNotSupported = 2,
    kLocalLimitExceeded = 3,
};

struct ContextResult {
    uint16_t result = kAccepted;
    uint16_t reason = 0; // of a negotiate-ack: the features of both sides
    RPC_SYNTAX_IDENTIFIER transfer{};
    bool operator==(const ContextResult&) const = default;
};

// Bind-ack and alter-context-response, offset 16: as in Bind to the group, then u16 length, a port's name with its NUL,
// padding to 4, u8 count, 3 zero bytes, per result: u16 result, u16 reason, 20 bytes transfer syntax.
struct BindAck {
    uint16_t largestSent = kLargestFragment;
    uint16_t largestReceived = kLargestFragment;
    uint32_t group = 0;
    std::string_view port; // without NUL; decoded: within the PDU's bytes
    std::vector<ContextResult> results;
    bool operator==(const BindAck&) const = default;
};

enum BindNakReason : uint16_t {
    kNakNotSpecified = 0,
    kNakLocalLimitExceeded = 2,
    kNakVersionNotSupported = 4,
    kNakAuthenticationNotRecognized = 8,
};

// Bind-time features. Ours: an orphaned call does not end the connection.
inline constexpr uint16_t kKeepConnectionOnOrphan = 0x0002;
// The feature bits of a peer, when the transfer syntax is the negotiation marker.
bool IsFeatureNegotiation(const RPC_SYNTAX_IDENTIFIER& transfer, uint16_t& features);

// Decodes the first kHeaderSize bytes. Only the lengths are checked: a fragment has at least the common header, and
// more than its authentication trailer.
bool DecodeHeader(const uint8_t* pdu, Header& header);

// From a whole PDU, header.fragmentLength bytes.
bool DecodeCallHeader(const uint8_t* pdu, const Header& header, CallHeader& call);
bool DecodeFault(const uint8_t* pdu, const Header& header, CallHeader& call, uint32_t& status);
bool DecodeBind(const uint8_t* pdu, const Header& header, Bind& bind);
bool DecodeBindAck(const uint8_t* pdu, const Header& header, BindAck& ack);
bool DecodeBindNak(const uint8_t* pdu, const Header& header, uint16_t& reason);

// Each writes a whole PDU and returns its size, 0 when it does not fit. The fragment length is filled in.
size_t EncodeBind(std::span<uint8_t> out, Header header, const Bind& bind);
size_t EncodeBindAck(std::span<uint8_t> out, Header header, const BindAck& ack);
size_t EncodeBindNak(std::span<uint8_t> out, Header header, uint16_t reason);
size_t EncodeFault(std::span<uint8_t> out, Header header, const CallHeader& call, uint32_t status);

// Writes the kCallHeaderSize bytes before a body; header.fragmentLength is used as given. On the path of every call.
inline void EncodeCallHeader(uint8_t* out, const Header& header, const CallHeader& call) {
    struct Wire {
        uint8_t majorVersion, minorVersion, type, flags;
        uint32_t representation;
        uint16_t fragmentLength, authLength;
        uint32_t callId, allocationHint;
        uint16_t contextId, procedure;
    };
    static_assert(sizeof(Wire) == kCallHeaderSize);
    const Wire wire{header.majorVersion,   header.minorVersion,   header.type,       header.flags,
                    header.representation, header.fragmentLength, header.authLength, header.callId,
                    call.allocationHint,   call.contextId,        call.procedure};
    memcpy(out, &wire, sizeof wire);
}

} // namespace oriel::rpc
