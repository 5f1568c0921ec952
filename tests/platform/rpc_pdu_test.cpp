// PDUs as bytes: decoded, checked, encoded again; cut short at every length. The functions are not exported by the
// layer, so the test compiles them in.
#include "../../platform/linux/rpc/fault_status.cpp"
#include "../../platform/linux/rpc/pdu.cpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

using namespace oriel::rpc;

namespace {

using Bytes = std::vector<uint8_t>;

const RPC_SYNTAX_IDENTIFIER kSome{{0x11223344, 0x5566, 0x7788, {0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x01}},
                                  {3, 1}};
const RPC_SYNTAX_IDENTIFIER kNdr{{0x8a885d04, 0x1ceb, 0x11c9, {0x9f, 0xe8, 0x08, 0x00, 0x2b, 0x10, 0x48, 0x60}},
                                 {2, 0}};
const RPC_SYNTAX_IDENTIFIER kFeatures{{0x6cb71c2c, 0x9812, 0x4540, {3, 0, 0, 0, 0, 0, 0, 0}}, {1, 0}};

// clang-format off
const Bytes kSomeBytes{0x44, 0x33, 0x22, 0x11, 0x66, 0x55, 0x88, 0x77, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x01, 3, 0, 1, 0};
const Bytes kNdrBytes{0x04, 0x5D, 0x88, 0x8A, 0xEB, 0x1C, 0xC9, 0x11, 0x9F, 0xE8, 0x08, 0x00, 0x2B, 0x10, 0x48, 0x60, 2, 0, 0, 0};
const Bytes kFeaturesBytes{0x2C, 0x1C, 0xB7, 0x6C, 0x12, 0x98, 0x40, 0x45, 3, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0};
// clang-format on

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

Header HeaderOf(const Bytes& pdu) {
    Header header;
    EXPECT_TRUE(DecodeHeader(pdu.data(), header));
    EXPECT_EQ(header.fragmentLength, pdu.size());
    return header;
}

// Decodes and encodes again, to the same bytes; then decodes every beginning of it, in memory that ends there.
template <typename Record>
void Check(const Bytes& pdu, const Record& expected, bool (*decode)(const uint8_t*, const Header&, Record&),
           size_t (*encode)(std::span<uint8_t>, Header, const Record&)) {
    const Header header = HeaderOf(pdu);
    Record record;
    ASSERT_TRUE(decode(pdu.data(), header, record));
    EXPECT_TRUE(record == expected);

    Bytes out(pdu.size());
    EXPECT_EQ(encode(out, header, record), pdu.size());
    EXPECT_EQ(out, pdu);
    EXPECT_EQ(encode(std::span(out).first(pdu.size() - 1), header, record), 0U);

    for (size_t size = kHeaderSize; size < pdu.size(); ++size) {
        const std::unique_ptr<uint8_t[]> cut(new uint8_t[size]);
        memcpy(cut.get(), pdu.data(), size);
        Header shorter = header;
        shorter.fragmentLength = static_cast<uint16_t>(size);
        EXPECT_FALSE(decode(cut.get(), shorter, record)) << size << " of " << pdu.size() << " bytes";
    }
}

} // namespace

TEST(RpcPdu, BindIsReadAndWritten) {
    const Bytes pdu = Join({
        {5, 0, 11, 3, 0x10, 0, 0, 0, 136, 0, 0, 0, 7, 0, 0, 0}, // version 5.0, bind, first and last, 136 bytes, call 7
        {0xB8, 0x10, 0xD0, 0x16, 0x78, 0x56, 0x34, 0x12},       // fragments up to 4280 and 5840, group 0x12345678
        {2, 0, 0, 0},                                           // two contexts
        {1, 0, 2, 0},
        kSomeBytes,
        kNdrBytes,
        kSomeBytes, // 1: two transfer syntaxes
        {2, 0, 1, 0},
        kSomeBytes,
        kFeaturesBytes, // 2: one
    });
    const Bind expected{.largestSent = 4280,
                        .largestReceived = 5840,
                        .group = 0x12345678,
                        .elements = {{1, kSome, {kNdr, kSome}}, {2, kSome, {kFeatures}}}};
    Check(pdu, expected, DecodeBind, EncodeBind);
    uint16_t features = 0;
    EXPECT_TRUE(IsFeatureNegotiation(kFeatures, features));
    EXPECT_EQ(features, 3);
    EXPECT_FALSE(IsFeatureNegotiation(kNdr, features));
}

TEST(RpcPdu, BindAckIsReadAndWritten) {
    const Bytes named = Join({
        {5, 0, 12, 3, 0x10, 0, 0, 0, 84, 0, 0, 0, 7, 0, 0, 0}, // bind-ack, 84 bytes
        {0xD0, 0x16, 0xB8, 0x10, 0x78, 0x56, 0x34, 0x12},      // fragments up to 5840 and 4280, group
        {4, 0, 'a', 'b', 'c', 0, 0, 0},                        // port "abc", padding
        {2, 0, 0, 0},                                          // two results
        {0, 0, 0, 0},
        kNdrBytes, // accepted
        {2, 0, 1, 0},
        Bytes(20), // rejected: interface not supported
    });
    const std::vector<ContextResult> results{{kAccepted, 0, kNdr}, {kProviderRejection, kInterfaceNotSupported, {}}};
    Check(named, BindAck{5840, 4280, 0x12345678, "abc", results}, DecodeBindAck, EncodeBindAck);

    const Bytes nameless = Join({
        {5, 0, 15, 3, 0x10, 0, 0, 0, 56, 0, 0, 0, 7, 0, 0, 0}, // alter-context-response
        {0xD0, 0x16, 0xB8, 0x10, 0, 0, 0, 0},
        {0, 0, 0, 0}, // no port, padding
        {1, 0, 0, 0},
        {0, 0, 0, 0},
        kNdrBytes,
    });
    Check(nameless, BindAck{5840, 4280, 0, "", {{kAccepted, 0, kNdr}}}, DecodeBindAck, EncodeBindAck);
}

TEST(RpcPdu, BigEndianBindSaysTheSame) {
    const Bytes pdu{5, 0, 11, 3, 0x00, 0, 0, 0, 0, 72, 0, 0, 0, 0, 0, 7,        // label:
                                                                                // big-endian
                    0x10, 0xB8, 0x16, 0xD0, 0x12, 0x34, 0x56, 0x78, 1, 0, 0, 0, //
                    0, 1, 1, 0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, //
                    0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x01, 0, 1, 0, 3, // version 3.1 as one number
                    0x8A, 0x88, 0x5D, 0x04, 0x1C, 0xEB, 0x11, 0xC9, 0x9F, 0xE8, 0x08, 0x00, 0x2B, 0x10, 0x48, 0x60, 0,
                    0, 0, 2};
    const Header header = HeaderOf(pdu);
    EXPECT_EQ(header.callId, 7U);
    Bind bind;
    ASSERT_TRUE(DecodeBind(pdu.data(), header, bind));
    EXPECT_TRUE((bind == Bind{4280, 5840, 0x12345678, {{1, kSome, {kNdr}}}}));
}

TEST(RpcPdu, NakFaultAndCallHeadersAreReadAndWritten) {
    const Bytes nak{5, 0, 13, 3, 0x10, 0, 0, 0, 24, 0, 0, 0, 7, 0, 0, 0, 4, 0, 1, 5, 0, 0, 0, 0};
    uint16_t reason = 0;
    ASSERT_TRUE(DecodeBindNak(nak.data(), HeaderOf(nak), reason));
    EXPECT_EQ(reason, kNakVersionNotSupported);
    Bytes out(nak.size());
    EXPECT_EQ(EncodeBindNak(out, HeaderOf(nak), reason), nak.size());
    EXPECT_EQ(out, nak);

    const Bytes fault{5, 0, 3,    0x23, 0x10, 0, 0, 0, 32, 0, 0, 0, 9, 0, 0, 0, // did not execute
                      0, 0, 0,    0,    1,    0, 0, 0,                          // context 1
                      2, 0, 0x01, 0x1C, 0,    0, 0, 0};                         // procedure out of range
    CallHeader call;
    uint32_t status = 0;
    ASSERT_TRUE(DecodeFault(fault.data(), HeaderOf(fault), call, status));
    EXPECT_EQ(call.contextId, 1);
    EXPECT_EQ(StatusFromFault(status, true), RPC_S_PROCNUM_OUT_OF_RANGE);
    out.resize(fault.size());
    EXPECT_EQ(EncodeFault(out, HeaderOf(fault), call, status), fault.size());
    EXPECT_EQ(out, fault);

    const Bytes request{5, 0, 0, 3, 0x10, 0, 0, 0, 28, 0, 0, 0, 9, 0, 0, 0, 4, 0, 0, 0, 1, 0, 6, 0, 1, 2, 3, 4};
    ASSERT_TRUE(DecodeCallHeader(request.data(), HeaderOf(request), call));
    EXPECT_TRUE((call == CallHeader{.allocationHint = 4, .contextId = 1, .procedure = 6}));
    out.resize(kCallHeaderSize);
    EncodeCallHeader(out.data(), HeaderOf(request), call);
    EXPECT_EQ(out, Bytes(request.begin(), request.begin() + kCallHeaderSize));

    Header shortHeader = HeaderOf(request);
    shortHeader.fragmentLength = kCallHeaderSize - 1;
    EXPECT_FALSE(DecodeCallHeader(request.data(), shortHeader, call));
    shortHeader = HeaderOf(request);
    shortHeader.flags |= kObjectUuid; // 16 bytes more than there are
    EXPECT_FALSE(DecodeCallHeader(request.data(), shortHeader, call));
}

TEST(RpcPdu, HeaderWithImpossibleLengthsIsRefused) {
    struct Row {
        uint16_t fragment, trailer;
        bool possible;
    };
    for (const Row& row : {Row{16, 0, true}, Row{15, 0, false}, Row{0, 0, false}, Row{24, 8, true}, Row{24, 9, false},
                           Row{65535, 65519, true}, Row{65535, 65520, false}}) {
        uint8_t pdu[kHeaderSize] = {5, 0, 0, 3, 0x10};
        memcpy(pdu + 8, &row.fragment, 2);
        memcpy(pdu + 10, &row.trailer, 2);
        Header header;
        EXPECT_EQ(DecodeHeader(pdu, header), row.possible) << row.fragment << ", " << row.trailer;
    }
}

TEST(RpcPdu, FaultCodesBecomePositiveStatuses) {
    struct Row {
        RPC_STATUS raised;
        uint32_t fault;
        RPC_STATUS seen;
    };
    for (const Row& row :
         {Row{RPC_S_PROCNUM_OUT_OF_RANGE, 0x1C010002, RPC_S_PROCNUM_OUT_OF_RANGE},
          Row{RPC_S_UNKNOWN_IF, 0x1C010003, RPC_S_UNKNOWN_IF}, Row{RPC_X_BAD_STUB_DATA, 0x6F7, RPC_X_BAD_STUB_DATA},
          Row{RPC_S_ACCESS_DENIED, 5, RPC_S_ACCESS_DENIED},
          Row{RPC_S_OUT_OF_MEMORY, 0x1C00001B, RPC_S_SERVER_OUT_OF_MEMORY},
          Row{RPC_S_SERVER_TOO_BUSY, 0x1C010014, RPC_S_SERVER_TOO_BUSY},
          Row{RPC_S_CALL_FAILED, 0x1C000012, RPC_S_CALL_FAILED}, Row{4711, 4711, 4711},
          Row{0, 0x1C000012, RPC_S_CALL_FAILED}, Row{-2, 0x1C000012, RPC_S_CALL_FAILED}}) {
        EXPECT_EQ(FaultFromStatus(row.raised), row.fault) << row.raised;
        EXPECT_EQ(StatusFromFault(row.fault, false), row.seen) << row.raised;
    }
    for (const uint32_t hostile : {0U, 0xFFFFFFFEU, 0x80000000U, 0xC0000005U, 0x1C00FFFFU})
        EXPECT_EQ(StatusFromFault(hostile, false), RPC_S_CALL_FAILED) << hostile;
    EXPECT_EQ(StatusFromFault(0x1C000012, true), RPC_S_CALL_FAILED_DNE);
}
