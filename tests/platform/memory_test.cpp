// Heaps and the fault guard.
#include "memory_kit.h"
#include "win32_kit.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace {

// Every kind of address, both ways. Returns what was wrong, empty for nothing.
std::string CheckEveryKind(size_t size) {
    BadMemory memory;
    std::string wrong;
    std::vector<unsigned char> buffer(size + 1);
    for (const AddressCase& row : memory.Kinds(size)) {
        const auto note = [&](const char* what) { wrong += std::string(row.kind) + ": " + what + "; "; };
        for (const bool reading : {true, false}) {
            // The own side cannot be as long as the other one claims to be.
            const bool huge = row.size > buffer.size();
            if (huge) buffer.resize(1U << 20);
            std::memset(buffer.data(), reading ? 0 : 'x', buffer.size());
            const size_t asked = huge ? buffer.size() : row.size;
            SIZE_T count = 99;
            SetLastError(kSentinel);
            const BOOL done = reading
                                  ? ReadProcessMemory(GetCurrentProcess(), row.address, buffer.data(), asked, &count)
                                  : WriteProcessMemory(GetCurrentProcess(), row.address, buffer.data(), asked, &count);
            if ((done != FALSE) != (reading ? row.readable : row.writable)) note(reading ? "read" : "write");
            if (done != FALSE && (count != asked || GetLastError() != kSentinel)) note("count or error after success");
            if (done == FALSE && count >= asked) note("count after failure");
            if (done == FALSE && GetLastError() != (count > 0 ? ERROR_PARTIAL_COPY : ERROR_NOACCESS)) note("error");
            for (size_t i = 0; reading && i < count; ++i)
                if (buffer[i] != 'x') {
                    note("bytes");
                    break;
                }
            if (huge) buffer.resize(size + 1);
        }
    }
    return wrong;
}

CHILD_PROCESS(CopiesInASandbox) {
    if (!RefuseGuardCalls()) {
        child.Say("cannot refuse");
        return 0;
    }
    child.Say(CheckEveryKind(16) + CheckEveryKind(4000));
    return 0;
}

} // namespace

TEST(ProcessMemory, EveryKindOfAddressBothWays) {
    for (const size_t size : {1U, 4U, 16U, 700U, 4000U}) {
        EXPECT_EQ(CheckEveryKind(size), "") << size;
        std::thread([size] { EXPECT_EQ(CheckEveryKind(size), "") << size << " in a thread"; }).join();
    }
    TestProcess sandbox("CopiesInASandbox"); // where the calls that it likes are refused
    const std::string said = sandbox.Hear();
    EXPECT_TRUE(said == "" || said == "cannot refuse") << said;
    int value = 0;
    EXPECT_FAILS(ReadProcessMemory(nullptr, &value, &value, sizeof value, nullptr), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(WriteProcessMemory(ULongToHandle(0x1234), &value, &value, sizeof value, nullptr)) << "another's";
}

// Addresses that are settled without asking the system.
TEST(ProcessMemory, OwnStackAndConstantsAreCopiedAsTheyAre) {
    HANDLE self = GetCurrentProcess();
    const auto check = [self] {
        char frame[700];
        char copy[700];
        for (const size_t size : {0U, 1U, 7U, 8U, 63U, 699U}) {
            SIZE_T count = 99;
            std::memset(frame, 'a', sizeof frame);
            ASSERT_TRUE(ReadProcessMemory(self, frame, copy, size, &count));
            EXPECT_EQ(count, size);
            EXPECT_EQ(std::count(copy, copy + size, 'a'), static_cast<ptrdiff_t>(size));
            std::memset(copy, 'b', sizeof copy);
            ASSERT_TRUE(WriteProcessMemory(self, frame, copy, size, &count));
            EXPECT_EQ(std::count(frame, frame + size, 'b'), static_cast<ptrdiff_t>(size));
            EXPECT_EQ(frame[size], 'a') << "wrote too much";
        }
    };
    check();
    std::thread(check).join();

    // A size that leads out of the stack.
    char frame[16] = {};
    std::vector<char> large(16U << 20);
    EXPECT_FALSE(ReadProcessMemory(self, frame, large.data(), large.size(), nullptr));

    static const char constant[] = "PrinterStatus";
    char copy[sizeof constant];
    EXPECT_TRUE(ReadProcessMemory(self, constant, copy, sizeof copy, nullptr));
    EXPECT_STREQ(copy, constant);
    EXPECT_FAILS(WriteProcessMemory(self, const_cast<char*>(constant), "x", 1, nullptr), ERROR_NOACCESS);
}

TEST(ProcessMemory, MemoryThatGoesAwayMeanwhileGivesAnErrorAtMost) {
    BadMemory memory;
    std::atomic<bool> stop{false};
    std::thread racer([&] {
        for (bool forbidden = true; !stop; forbidden = !forbidden)
            memory.Forbid(forbidden);
    });
    unsigned outcomes[2] = {};
    unsigned char copy[256];
    for (int i = 0; i < 200'000 && (outcomes[0] < 500 || outcomes[1] < 500); ++i) {
        const bool reading = i % 2 == 0;
        const BOOL done = reading
                              ? ReadProcessMemory(GetCurrentProcess(), memory.GoodPage(), copy, sizeof copy, nullptr)
                              : WriteProcessMemory(GetCurrentProcess(), memory.GoodPage(), copy, sizeof copy, nullptr);
        ++outcomes[done != FALSE];
        if (reading && done != FALSE) {
            EXPECT_EQ(copy[0], 'x');
            EXPECT_EQ(copy[255], 'x');
        }
        std::memset(copy, 'x', sizeof copy);
    }
    stop = true;
    racer.join();
    EXPECT_GT(outcomes[0], 0U) << "the race never went the one way";
    EXPECT_GT(outcomes[1], 0U) << "the race never went the other way";
}

TEST(ProcessMemory, ForkedChildCopiesItsOwnMemory) {
    std::vector<int> value(1000, 1);
    const auto firstRead = [&value] {
        int copy = 0;
        return ReadProcessMemory(GetCurrentProcess(), value.data(), &copy, sizeof copy, nullptr) != FALSE ? copy : -1;
    };
    EXPECT_EQ(firstRead(), 1);
    EXPECT_EQ(RunForked([&] {
                  value[0] = 2;
                  if (firstRead() != 2) return 2;
                  const int three = 3;
                  if (!WriteProcessMemory(GetCurrentProcess(), value.data(), &three, sizeof three, nullptr)) return 3;
                  return value[0] == 3 ? 0 : 4;
              }),
              0);
    EXPECT_EQ(firstRead(), 1) << "the child wrote into its parent";
}

TEST(Heap, BlocksAreZeroedAlignedAndKnowTheirHeap) {
    HANDLE heap = HeapCreate(0, 32768, 0);
    HANDLE other = HeapCreate(0, 0, 0);
    for (const size_t size : {0U, 1U, 15U, 16U, 1000U, 100'000U, 5'000'000U}) {
        auto* dirty = static_cast<unsigned char*>(HeapAlloc(heap, 0, size));
        ASSERT_NE(dirty, nullptr);
        std::memset(dirty, 0xEE, size);
        EXPECT_FALSE(OnTheLayer() && HeapFree(other, 0, dirty)); // Windows takes the caller's word for the heap
        EXPECT_TRUE(HeapFree(heap, 0, dirty));
        auto* block = static_cast<unsigned char*>(HeapAlloc(heap, HEAP_ZERO_MEMORY, size));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0U);
        EXPECT_EQ(std::count(block, block + size, 0), static_cast<ptrdiff_t>(size));
        EXPECT_TRUE(HeapFree(heap, 0, block));
    }
    for (const SIZE_T size : {SIZE_MAX, SIZE_MAX - 16, SIZE_MAX - 31, SIZE_MAX - 32, SIZE_MAX / 2}) {
        SetLastError(kSentinel);
        EXPECT_EQ(HeapAlloc(heap, HEAP_ZERO_MEMORY, size), nullptr) << size;
        EXPECT_EQ(HeapAlloc(heap, 0, size), nullptr) << size;
        EXPECT_EQ(GetLastError(), kSentinel) << "left alone";
    }
    EXPECT_TRUE(HeapFree(heap, 0, nullptr));
    if (OnTheLayer()) {
        EXPECT_FALSE(HeapCreate(0, 0, 1 << 20)) << "a largest size is not kept";
        EXPECT_FALSE(HeapAlloc(heap, 0x10, 8));
    }
    EXPECT_TRUE(HeapDestroy(other));
    EXPECT_TRUE(HeapDestroy(heap));
}

TEST(Heap, DestroyFreesWhateverWasLeft) {
    size_t before = 0;
    for (int round = 0; round < 20; ++round) {
        if (round == 1) before = BytesInUse(); // the C library keeps a few blocks at hand, from the first round on

        HANDLE heap = HeapCreate(0, 0, 0);
        std::vector<void*> blocks;
        for (size_t i = 0; i < 2000; ++i)
            blocks.push_back(HeapAlloc(heap, 0, i % 700));
        HeapAlloc(heap, 0, 3U << 20);
        for (size_t i = 0; i < blocks.size(); i += 3) // first, last and in the middle of the lists
            EXPECT_TRUE(HeapFree(heap, 0, blocks[i]));
        EXPECT_TRUE(HeapFree(heap, 0, blocks[1999]));
        EXPECT_TRUE(HeapDestroy(heap));
    }
    EXPECT_LT(BytesInUse(), before + 10'000);
}

TEST(Heap, ThreadsAllocateAndFreeEachOthersBlocks) {
    HANDLE heap = HeapCreate(0, 0, 0);
    constexpr int kThreads = 4;
    constexpr int kSlots = 64;
    std::atomic<unsigned char*> slots[kSlots] = {};
    std::atomic<int> damaged{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (unsigned i = 0; i < 20'000; ++i) {
                const size_t size = 8 + (i * 37 + static_cast<unsigned>(t)) % 300;
                auto* mine = static_cast<unsigned char*>(HeapAlloc(heap, 0, size));
                std::memset(mine, static_cast<int>(size & 0xFF), size);
                std::memcpy(mine, &size, sizeof size);
                unsigned char* theirs = slots[(i * 13 + static_cast<unsigned>(t)) % kSlots].exchange(mine);
                if (theirs == nullptr) continue;
                size_t found = 0;
                std::memcpy(&found, theirs, sizeof found);
                if (found < 8 || found > 307 || (found > 8 && theirs[found - 1] != (found & 0xFF))) ++damaged;
                if (!HeapFree(heap, 0, theirs)) ++damaged;
            }
        });
    // A child that is forked in the middle of it can use the heap.
    for (int i = 0; i < 20 && OnTheLayer(); ++i)
        EXPECT_EQ(RunForked([heap] {
                      for (int k = 0; k < 100; ++k)
                          if (!HeapFree(heap, 0, HeapAlloc(heap, HEAP_ZERO_MEMORY, 100))) return 1;
                      return 0;
                  }),
                  0);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(damaged, 0);
    EXPECT_TRUE(HeapDestroy(heap));
}
