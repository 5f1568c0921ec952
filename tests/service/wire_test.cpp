// Bodies that no client of ours would send. Those of an orderly one: foreign_client.py.
#include "service_under_test.h"

#include <algorithm>

namespace {

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
            {2, BodyOf(handle)},
            {22, BodyOf(handle, handle)},
            {23, BodyOf(handle, "All")},
            {24, BodyOf("x")}};
}

} // namespace

// Every byte of every request changed, and every count and number set to what breaks sums: the service answers each
// call, with whatever answer, and goes on.
TEST(Wire, BodiesThatCannotBeReadRaiseBadStubDataAndNoneDisturbsTheService) {
    const Service service;
    const Database database("Database", {{"Value", kTypeRecord, {1, 2, 3}}, {"All", kTypeComposite, {}}});
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
    // Array and size parameter differ.
    EXPECT_EQ(CallRaw(8, BodyOf(again.handle, "More", 4u, 3u, 0u, Bytes{1, 2})).fault, RPC_X_BAD_STUB_DATA);
    EXPECT_EQ(CallRaw(9, BodyOf(again.handle, "Value", Bytes{7}, 2u)).fault, RPC_X_BAD_STUB_DATA);
    EXPECT_EQ(CallRaw(10, BodyOf(again.handle, "Value", kValueSizeMax + 1)).fault, RPC_X_BAD_STUB_DATA);
    EXPECT_EQ(again.Value("Value"), (Bytes{1, 2, 3}));
    for (const UINT procedure : {5u, 6u, 11u, 13u, 17u, 25u, 4711u})
        EXPECT_EQ(CallRaw(procedure, Number(again.handle)).fault, RPC_S_PROCNUM_OUT_OF_RANGE) << procedure;
    for (const auto& [procedure, body] : GoodRequests(again.handle)) {
        const auto answers = [&procedure = procedure, &body = body](size_t at, const Bytes& bytes) {
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
    EXPECT_EQ(Database().Open("Database"), kDone);
}
