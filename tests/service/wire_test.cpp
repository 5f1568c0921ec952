// Bytes of requests and replies, as any client of the interface would send and see them.
#include "service_under_test.h"

#include <cstring>

namespace {

// A request body, put together from its parameters.
struct Body {
    Bytes bytes;

    Body& U32(DWORD value) {
        for (int i = 0; i < 4; ++i)
            bytes.push_back(static_cast<unsigned char>(value >> 8 * i));
        return *this;
    }
    Body& Padded(const Bytes& more) {
        bytes.insert(bytes.end(), more.begin(), more.end());
        bytes.resize((bytes.size() + 3) / 4 * 4);
        return *this;
    }
    Body& Text(std::string_view text) {
        const DWORD count = static_cast<DWORD>(text.size()) + 1;
        return U32(count).U32(0).U32(count).Padded(BytesOf(text));
    }
    Body& Array(const Bytes& array) { return U32(static_cast<DWORD>(array.size())).Padded(array); }
};

DWORD U32At(const Bytes& bytes, size_t at) {
    DWORD value = 0xFFFFFFFF;
    if (at + 4 <= bytes.size()) std::memcpy(&value, bytes.data() + at, 4);
    return value;
}

const Bytes kDoneReply = {0, 0, 0, 0};

} // namespace

TEST(Wire, RequestAndReplyBytesOfEveryProcedure) {
    const Service service;
    // "AB" as it travels
    const Bytes text = {3, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 'A', 'B', 0, 0};
    EXPECT_EQ(Body{}.Text("AB").bytes, text);

    RawReply reply = CallRaw(0, text);
    ASSERT_EQ(reply.fault, RPC_S_OK);
    EXPECT_EQ(reply.representation & 0xFF, 0x10u);
    ASSERT_EQ(reply.body.size(), 8u);
    const DWORD handle = U32At(reply.body, 0);
    EXPECT_NE(handle, 0u);
    EXPECT_EQ(U32At(reply.body, 4), 0u);
    EXPECT_EQ(CallRaw(0, text).body, (Bytes{0, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF})) << "-2: there is one";
    EXPECT_EQ(CallRaw(1, text).body, (Bytes{0, 0, 0, 0, 0xFC, 0xFF, 0xFF, 0xFF})) << "-4: not ready";

    EXPECT_EQ(CallRaw(8, Body{}.U32(handle).Text("V").U32(4).U32(5).U32(0).Array({1, 2, 3, 4, 5}).bytes).body,
              kDoneReply);
    EXPECT_EQ(CallRaw(8, Body{}.U32(handle).Text("C").U32(6).U32(0).U32(0).Array({}).bytes).body, kDoneReply);
    EXPECT_EQ(CallRaw(12, Body{}.U32(handle).Text("C").Text("V;V;").bytes).body, kDoneReply);
    EXPECT_EQ(CallRaw(7, Body{}.U32(handle).bytes).body, kDoneReply);
    EXPECT_EQ(CallRaw(9, Body{}.U32(handle).Text("V").Array({6, 7, 8}).U32(3).bytes).body, kDoneReply);

    // An array of 7, the last four zero, padding; value size 3; status 0.
    EXPECT_EQ(CallRaw(10, Body{}.U32(handle).Text("V").U32(7).bytes).body,
              (Bytes{7, 0, 0, 0, 6, 7, 8, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0}));
    // Too small: an array of 2, zero, padding; value size 3; status -8.
    EXPECT_EQ(CallRaw(10, Body{}.U32(handle).Text("V").U32(2).bytes).body,
              (Bytes{2, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0xF8, 0xFF, 0xFF, 0xFF}));
    // Size 0: an empty array, the value size, status 0.
    EXPECT_EQ(CallRaw(10, Body{}.U32(handle).Text("V").U32(0).bytes).body, (Bytes{0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(CallRaw(10, Body{}.U32(handle).Text("C").U32(6).bytes).body,
              (Bytes{6, 0, 0, 0, 6, 7, 8, 6, 7, 8, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0}));

    reply = CallRaw(14, Body{}.U32(handle).Text("V").bytes);
    ASSERT_EQ(reply.body.size(), 32u);
    EXPECT_EQ(U32At(reply.body, 0), 4u) << "type";
    EXPECT_EQ(U32At(reply.body, 4), 3u) << "size";
    EXPECT_EQ(U32At(reply.body, 8), 5u) << "limit";
    EXPECT_EQ(U32At(reply.body, 28), 0u) << "status";
    SYSTEMTIME written, now;
    std::memcpy(&written, reply.body.data() + 12, sizeof written);
    GetSystemTime(&now);
    EXPECT_LE(Milliseconds(now) - Milliseconds(written), 20000u);

    reply = CallRaw(4, Body{}.U32(handle).bytes);
    ASSERT_EQ(reply.body.size(), 28u);
    EXPECT_EQ(U32At(reply.body, 0), 1u) << "open handles";
    EXPECT_EQ(U32At(reply.body, 4), 2u) << "variables";
    EXPECT_EQ(U32At(reply.body, 24), 0u);

    EXPECT_EQ(CallRaw(15, Body{}.U32(handle).Text("V").U32(1).bytes).body, kDoneReply);
    EXPECT_EQ(CallRaw(16, Body{}.U32(handle).Text("V").bytes).body, kDoneReply);
    EXPECT_EQ(CallRaw(18, Body{}.Text("Refresh:Front desk").bytes).body, (Bytes{0xF2, 0xFF, 0xFF, 0xFF})) << "-14";
    reply = CallRaw(1, text);
    EXPECT_NE(U32At(reply.body, 0), handle);
    EXPECT_EQ(CallRaw(2, Body{}.U32(U32At(reply.body, 0)).bytes).body, kDoneReply);
}

TEST(Wire, BodiesThatCannotBeReadRaiseBadStubData) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Value", kTypeRecord, {1, 2, 3}}});
    const struct {
        UINT procedure;
        Bytes body;
    } complete[] = {
        {0, Body{}.Text("Other").bytes},
        {1, Body{}.Text("Database").bytes},
        {4, Body{}.U32(handle).bytes},
        {7, Body{}.U32(handle).bytes},
        {8, Body{}.U32(handle).Text("New").U32(4).U32(4).U32(0).Array({1, 2, 3, 4}).bytes},
        {9, Body{}.U32(handle).Text("Value").Array({7}).U32(1).bytes},
        {10, Body{}.U32(handle).Text("Value").U32(16).bytes},
        {12, Body{}.U32(handle).Text("Value").Text("A;").bytes},
        {14, Body{}.U32(handle).Text("Value").bytes},
        {15, Body{}.U32(handle).Text("Value").U32(1).bytes},
        {16, Body{}.U32(handle).Text("Value").bytes},
        {18, Body{}.Text("Refresh:x").bytes},
        {2, Body{}.U32(handle).bytes},
    };
    for (const auto& [procedure, body] : complete) {
        // Padding behind a text at the end may be missing.
        size_t needed = body.size();
        while (needed > 0 && CallRaw(procedure, Bytes(body.begin(), body.begin() + needed - 1)).fault == RPC_S_OK)
            --needed;
        EXPECT_LT(body.size() - needed, 4u) << procedure;
        for (size_t size = 0; size < needed; ++size)
            EXPECT_EQ(CallRaw(procedure, Bytes(body.begin(), body.begin() + size)).fault, RPC_X_BAD_STUB_DATA)
                << procedure << " cut to " << size;
    }
    DWORD again = 0;
    ASSERT_EQ(OpenDatabase("Database", &again), kDone);
    EXPECT_EQ(CallRaw(9, Body{}.U32(again).Text("Value").Array({7}).U32(2).bytes).fault, RPC_X_BAD_STUB_DATA)
        << "array and size parameter differ";
    EXPECT_EQ(CallRaw(10, Body{}.U32(again).Text("Value").U32(kValueSizeMax + 1).bytes).fault, RPC_X_BAD_STUB_DATA);
    EXPECT_EQ(ValueOf(again, "Value"), (Bytes{1, 2, 3}));
    for (const UINT procedure : {3u, 5u, 6u, 11u, 13u, 17u, 19u, 4711u})
        EXPECT_EQ(CallRaw(procedure, Body{}.U32(again).bytes).fault, RPC_S_PROCNUM_OUT_OF_RANGE) << procedure;
}

// Every byte of every request changed, and every count and number set to what breaks sums: the service answers each
// call, with whatever answer, and goes on.
TEST(Wire, NoChangedRequestDisturbsTheService) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Value", kTypeRecord, {1, 2, 3}}, {"All", kTypeComposite, {}}});
    const struct {
        UINT procedure;
        Bytes body;
    } golden[] = {
        {0, Body{}.Text("Other").bytes},
        {1, Body{}.Text("Database").bytes},
        {8, Body{}.U32(handle).Text("New").U32(4).U32(4).U32(0).Array({1, 2, 3, 4}).bytes},
        {9, Body{}.U32(handle).Text("Value").Array({7, 8}).U32(2).bytes},
        {10, Body{}.U32(handle).Text("Value").U32(16).bytes},
        {12, Body{}.U32(handle).Text("All").Text("Value;All;").bytes},
        {14, Body{}.U32(handle).Text("All").bytes},
        {15, Body{}.U32(handle).Text("Value").U32(2).bytes},
        {16, Body{}.U32(handle).Text("Value").bytes},
        {18, Body{}.Text("Refresh:x").bytes},
    };
    const auto isOrderly = [](RPC_STATUS fault) { return fault == RPC_S_OK || fault == RPC_X_BAD_STUB_DATA; };
    for (const auto& [procedure, body] : golden) {
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
