// Bytes of requests and replies, as any client of the interface would send and see them.
#include "service_under_test.h"

#include <cstring>

namespace {

const Bytes kDoneReply = {0, 0, 0, 0};

struct Request {
    UINT procedure;
    Bytes body;
};

// One of each procedure, for a database with "Value" and the composite "All"; the last closes the handle.
std::vector<Request> GoodRequests(DWORD handle) {
    return {
        {0, BodyOf("Other")},
        {1, BodyOf("Database")},
        {4, BodyOf(handle)},
        {7, BodyOf(handle)},
        {8, BodyOf(handle, "New", 4u, 4u, 0u, Bytes{1, 2, 3, 4})},
        {9, BodyOf(handle, "Value", Bytes{7, 8}, 2u)},
        {10, BodyOf(handle, "Value", 16u)},
        {12, BodyOf(handle, "All", "Value;All;")},
        {14, BodyOf(handle, "All")},
        {15, BodyOf(handle, "Value", 2u)},
        {16, BodyOf(handle, "Value")},
        {18, BodyOf("Refresh:x")},
        {2, BodyOf(handle)},
    };
}

} // namespace

TEST(Wire, RequestAndReplyBytesOfEveryProcedure) {
    const Service service;
    // "AB" as it travels
    const Bytes text = {3, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 'A', 'B', 0, 0};
    EXPECT_EQ(BodyOf("AB"), text);

    RawReply reply = CallRaw(0, text);
    ASSERT_EQ(reply.fault, RPC_S_OK);
    ASSERT_EQ(reply.body.size(), 8u);
    const DWORD handle = U32At(reply.body, 0);
    EXPECT_NE(handle, 0u);
    EXPECT_EQ(U32At(reply.body, 4), 0u);
    EXPECT_EQ(CallRaw(0, text).body, (Bytes{0, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF})) << "-2: there is one";
    EXPECT_EQ(CallRaw(1, text).body, (Bytes{0, 0, 0, 0, 0xFC, 0xFF, 0xFF, 0xFF})) << "-4: not ready";

    EXPECT_EQ(CallRaw(8, BodyOf(handle, "V", 4u, 5u, 0u, Bytes{1, 2, 3, 4, 5})).body, kDoneReply);
    EXPECT_EQ(CallRaw(8, BodyOf(handle, "C", 6u, 0u, 0u, Bytes{})).body, kDoneReply);
    EXPECT_EQ(CallRaw(12, BodyOf(handle, "C", "V;V;")).body, kDoneReply);
    EXPECT_EQ(CallRaw(7, BodyOf(handle)).body, kDoneReply);
    EXPECT_EQ(CallRaw(9, BodyOf(handle, "V", Bytes{6, 7, 8}, 3u)).body, kDoneReply);

    // An array of 7, the last four zero, padding; value size 3; status 0.
    EXPECT_EQ(CallRaw(10, BodyOf(handle, "V", 7u)).body,
              (Bytes{7, 0, 0, 0, 6, 7, 8, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0}));
    // Too small: an array of 2, zero, padding; value size 3; status -8.
    EXPECT_EQ(CallRaw(10, BodyOf(handle, "V", 2u)).body,
              (Bytes{2, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0xF8, 0xFF, 0xFF, 0xFF}));
    // Size 0: an empty array, the value size, status 0.
    EXPECT_EQ(CallRaw(10, BodyOf(handle, "V", 0u)).body, (Bytes{0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(CallRaw(10, BodyOf(handle, "C", 10u)).body,
              (Bytes{10, 0, 0, 0, 6, 7, 8, 0, 0, 6, 7, 8, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0}));

    reply = CallRaw(14, BodyOf(handle, "V"));
    ASSERT_EQ(reply.body.size(), 32u);
    EXPECT_EQ(U32At(reply.body, 0), 4u) << "type";
    EXPECT_EQ(U32At(reply.body, 4), 3u) << "size";
    EXPECT_EQ(U32At(reply.body, 8), 2u) << "writes, its creation among them";
    EXPECT_EQ(U32At(reply.body, 28), 0u) << "status";
    SYSTEMTIME written, now;
    std::memcpy(&written, reply.body.data() + 12, sizeof written);
    GetSystemTime(&now);
    EXPECT_LE(Milliseconds(now) + 1 - Milliseconds(written), 20000u); // the second write may be a millisecond ahead

    reply = CallRaw(4, BodyOf(handle));
    ASSERT_EQ(reply.body.size(), 28u);
    EXPECT_EQ(U32At(reply.body, 0), 1u) << "open handles";
    EXPECT_EQ(U32At(reply.body, 4), 2u) << "variables";
    EXPECT_EQ(U32At(reply.body, 24), 0u);

    reply = CallRaw(3, {});
    ASSERT_EQ(reply.body.size(), 12u);
    EXPECT_NE(U32At(reply.body, 0) | U32At(reply.body, 4), 0u) << "the instance";
    EXPECT_EQ(U32At(reply.body, 8), 0u);
    EXPECT_EQ(CallRaw(3, {}).body, reply.body);

    EXPECT_EQ(CallRaw(15, BodyOf(handle, "V", 1u)).body, kDoneReply);
    EXPECT_EQ(CallRaw(16, BodyOf(handle, "V")).body, kDoneReply);
    EXPECT_EQ(CallRaw(18, BodyOf("Refresh:Front desk")).body, (Bytes{0xF2, 0xFF, 0xFF, 0xFF})) << "-14";
    reply = CallRaw(1, text);
    EXPECT_NE(U32At(reply.body, 0), handle);
    EXPECT_EQ(CallRaw(2, BodyOf(U32At(reply.body, 0))).body, kDoneReply);
}

TEST(Wire, BodiesThatCannotBeReadRaiseBadStubData) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Value", kTypeRecord, {1, 2, 3}}});
    for (const auto& [procedure, body] : GoodRequests(handle)) {
        // Padding behind a text at the end may be missing.
        size_t needed = body.size();
        while (needed > 0 && CallRaw(procedure, Bytes(body.begin(), body.begin() + needed - 1)).fault == RPC_S_OK)
            --needed;
        EXPECT_LT(body.size() - needed, 4u) << procedure;
        for (size_t size = 0; size < needed; ++size)
            EXPECT_EQ(CallRaw(procedure, Bytes(body.begin(), body.begin() + size)).fault, RPC_X_BAD_STUB_DATA)
                << procedure << " cut to " << size;
    }
    // Counts of a text that lie: "AB" has a maximum, an offset and an actual count, its characters and their NUL.
    for (const auto& [at, byte] : {std::pair{0, 2}, {4, 1}, {8, 0}, {11, 0x80}, {14, 'C'}, {13, 0}}) {
        Bytes text = BodyOf("AB");
        text[static_cast<size_t>(at)] = static_cast<unsigned char>(byte);
        EXPECT_EQ(CallRaw(0, text).fault, RPC_X_BAD_STUB_DATA) << at;
    }
    DWORD again = 0;
    ASSERT_EQ(OpenDatabase("Database", &again), kDone);
    EXPECT_EQ(CallRaw(9, BodyOf(again, "Value", Bytes{7}, 2u)).fault, RPC_X_BAD_STUB_DATA)
        << "array and size parameter differ";
    EXPECT_EQ(CallRaw(10, BodyOf(again, "Value", kValueSizeMax + 1)).fault, RPC_X_BAD_STUB_DATA);
    EXPECT_EQ(ValueOf(again, "Value"), (Bytes{1, 2, 3}));
    for (const UINT procedure : {5u, 6u, 11u, 13u, 17u, 19u, 4711u})
        EXPECT_EQ(CallRaw(procedure, BodyOf(again)).fault, RPC_S_PROCNUM_OUT_OF_RANGE) << procedure;
}

// Every byte of every request changed, and every count and number set to what breaks sums: the service answers each
// call, with whatever answer, and goes on.
TEST(Wire, NoChangedRequestDisturbsTheService) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Value", kTypeRecord, {1, 2, 3}}, {"All", kTypeComposite, {}}});
    const auto isOrderly = [](RPC_STATUS fault) { return fault == RPC_S_OK || fault == RPC_X_BAD_STUB_DATA; };
    for (const auto& [procedure, body] : GoodRequests(handle)) {
        for (size_t at = 0; at < body.size(); ++at) {
            for (const int change : {0x01, 0x80, 0xFF}) {
                Bytes changed = body;
                changed[at] = static_cast<unsigned char>(changed[at] ^ change);
                EXPECT_TRUE(isOrderly(CallRaw(procedure, changed).fault)) << procedure << " at " << at;
            }
        }
        for (size_t at = 0; at + 4 <= body.size(); at += 4) {
            for (const DWORD value :
                 {0u, 1u, 2u, 3u, 4u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFCu, 0xFFFFFFFDu, 0xFFFFFFFFu, 0x10000u}) {
                Bytes changed = body;
                std::memcpy(changed.data() + at, &value, 4);
                EXPECT_TRUE(isOrderly(CallRaw(procedure, changed).fault)) << procedure << " at " << at;
            }
        }
    }
    VariableInfo info = {};
    EXPECT_EQ(GetVariableInfo(handle, "Value", &info), kDone);
}
