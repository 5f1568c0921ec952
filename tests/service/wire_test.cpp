// Bytes of requests and replies, as any client of the interface would send and see them.
#include "service_under_test.h"

#include <cstring>

namespace {

const Bytes kDoneReply = Number(0);

struct Request {
    UINT procedure;
    Bytes body;
};

// One of each procedure, for a database with "Value" and the composite "All"; the last closes the handle.
std::vector<Request> GoodRequests(DWORD handle) {
    return {{0, BodyOf("Other")},
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
            {2, BodyOf(handle)}};
}

} // namespace

TEST(Wire, RequestAndReplyBytesOfEveryProcedure) {
    const Service service;
    // "AB" as it travels
    const Bytes text = {3, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 'A', 'B', 0, 0};
    EXPECT_EQ(BodyOf("AB"), text);
    const RawReply created = CallRaw(0, text);
    ASSERT_EQ(created.fault, RPC_S_OK);
    const Bytes handle(created.body.begin(), created.body.begin() + 4);
    EXPECT_NE(handle, Bytes(4));
    EXPECT_EQ(created.body, handle + kDoneReply);

    const auto named = [&](std::string_view name) { return handle + BodyOf(name); };
    const Bytes& v = named("V");
    const Bytes& c = named("C");
    const struct {
        Request request;
        Bytes reply;
    } rows[] = {
        {{0, text}, Bytes(4) + Bytes{0xFE, 0xFF, 0xFF, 0xFF}}, // -2: there is one
        {{1, text}, Bytes(4) + Bytes{0xFC, 0xFF, 0xFF, 0xFF}}, // -4: not ready
        {{8, v + BodyOf(4u, 5u, 0u, Bytes{1, 2, 3, 4, 5})}, kDoneReply},
        {{8, c + BodyOf(6u, 0u, 0u, Bytes{})}, kDoneReply},
        {{12, c + BodyOf("V;V;")}, kDoneReply},
        {{7, handle}, kDoneReply},
        {{9, v + BodyOf(Bytes{6, 7, 8}, 3u)}, kDoneReply},
        // An array of 7, the last four zero, padding; value size 3; status 0.
        {{10, v + Number(7)}, {7, 0, 0, 0, 6, 7, 8, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0}},
        // Too small: an array of 2, zero, padding; value size 3; status -8.
        {{10, v + Number(2)}, {2, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0xF8, 0xFF, 0xFF, 0xFF}},
        // Size 0: an empty array, the value size, status 0.
        {{10, v + Number(0)}, {0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0}},
        {{10, c + Number(10)}, {10, 0, 0, 0, 6, 7, 8, 0, 0, 6, 7, 8, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0}},
        {{15, v + Number(1)}, kDoneReply},
        {{16, v}, kDoneReply},
        {{18, BodyOf("Refresh:Front desk")}, {0xF2, 0xFF, 0xFF, 0xFF}}, // -14
    };
    for (const auto& [request, reply] : rows)
        EXPECT_EQ(CallRaw(request.procedure, request.body).body, reply) << request.procedure;

    const Bytes info = CallRaw(14, v).body;
    ASSERT_EQ(info.size(), 32u);
    EXPECT_EQ(Bytes(info.begin(), info.begin() + 12), BodyOf(4u, 3u, 2u)) << "type, size, writes with its creation";
    EXPECT_EQ(U32At(info, 28), 0u) << "status";
    SYSTEMTIME written, now;
    std::memcpy(&written, info.data() + 12, sizeof written);
    GetSystemTime(&now);
    EXPECT_LE(Milliseconds(now) + 1 - Milliseconds(written), 20000u); // the second write may be a millisecond ahead

    const Bytes database = CallRaw(4, handle).body;
    ASSERT_EQ(database.size(), 28u);
    EXPECT_EQ(Bytes(database.begin(), database.begin() + 8), BodyOf(1u, 2u)) << "open handles, variables";
    EXPECT_EQ(U32At(database, 24), 0u);

    const Bytes instance = CallRaw(3, {}).body;
    ASSERT_EQ(instance.size(), 12u);
    EXPECT_NE(Bytes(instance.begin(), instance.begin() + 8), Bytes(8));
    EXPECT_EQ(U32At(instance, 8), 0u);
    EXPECT_EQ(CallRaw(3, {}).body, instance);

    const Bytes opened = CallRaw(1, text).body;
    EXPECT_NE(Bytes(opened.begin(), opened.begin() + 4), handle);
    EXPECT_EQ(CallRaw(2, Bytes(opened.begin(), opened.begin() + 4)).body, kDoneReply);
}

TEST(Wire, BodiesThatCannotBeReadRaiseBadStubData) {
    const Service service;
    const Database database("Database", {{"Value", kTypeRecord, {1, 2, 3}}});
    for (const auto& [procedure, body] : GoodRequests(database.handle)) {
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
    Database again;
    ASSERT_EQ(again.Open("Database"), kDone);
    EXPECT_EQ(CallRaw(9, BodyOf(again.handle, "Value", Bytes{7}, 2u)).fault, RPC_X_BAD_STUB_DATA)
        << "array and size parameter differ";
    EXPECT_EQ(CallRaw(10, BodyOf(again.handle, "Value", kValueSizeMax + 1)).fault, RPC_X_BAD_STUB_DATA);
    EXPECT_EQ(again.Value("Value"), (Bytes{1, 2, 3}));
    for (const UINT procedure : {5u, 6u, 11u, 13u, 17u, 19u, 4711u})
        EXPECT_EQ(CallRaw(procedure, Number(again.handle)).fault, RPC_S_PROCNUM_OUT_OF_RANGE) << procedure;
}

// Every byte of every request changed, and every count and number set to what breaks sums: the service answers each
// call, with whatever answer, and goes on.
TEST(Wire, NoChangedRequestDisturbsTheService) {
    const Service service;
    const Database database("Database", {{"Value", kTypeRecord, {1, 2, 3}}, {"All", kTypeComposite, {}}});
    for (const auto& [procedure, body] : GoodRequests(database.handle)) {
        const auto answers = [&](size_t at, const Bytes& bytes) {
            Bytes changed = body;
            std::copy(bytes.begin(), bytes.end(), changed.begin() + static_cast<ptrdiff_t>(at));
            const RPC_STATUS fault = CallRaw(procedure, changed).fault;
            EXPECT_TRUE(fault == RPC_S_OK || fault == RPC_X_BAD_STUB_DATA) << procedure << " at " << at;
        };
        for (size_t at = 0; at < body.size(); ++at)
            for (const int change : {0x01, 0x80, 0xFF})
                answers(at, {static_cast<unsigned char>(body[at] ^ change)});
        for (size_t at = 0; at + 4 <= body.size(); at += 4)
            for (const DWORD value :
                 {0u, 1u, 2u, 3u, 4u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFCu, 0xFFFFFFFDu, 0xFFFFFFFFu, 0x10000u})
                answers(at, Number(value));
    }
    Database again;
    ASSERT_EQ(again.Open("Database"), kDone);
    EXPECT_EQ(again.Info("Value").type, kTypeRecord);
}
