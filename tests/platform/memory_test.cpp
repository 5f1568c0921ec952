// Heaps and the fault guard.
#include "kit.h"
#include "memory_kit.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>

namespace {

const HANDLE kSelf = GetCurrentProcess();

// Every kind of address, both ways. Returns what was wrong, empty for nothing.
std::string CheckEveryKind(size_t size) {
    BadMemory memory;
    std::string wrong;
    for (const AddressCase& row : memory.Kinds(size))
        for (const bool reading : {true, false}) {
            // The own side cannot be as long as the other one claims to be.
            const size_t asked = std::min(row.size, size_t{1} << 20);
            std::vector<unsigned char> buffer(asked, reading ? 0 : 'x');
            SIZE_T count = 99;
            SetLastError(kSentinel);
            const BOOL done = reading ? ReadProcessMemory(kSelf, row.address, buffer.data(), asked, &count)
                                      : WriteProcessMemory(kSelf, row.address, buffer.data(), asked, &count);
            const DWORD error = done ? kSentinel : count > 0 ? DWORD{ERROR_PARTIAL_COPY} : DWORD{ERROR_NOACCESS};
            if ((done != FALSE) != (reading ? row.readable : row.writable) || GetLastError() != error ||
                (done ? count != asked : count >= asked) ||
                (reading && std::count(&buffer[0], &buffer[count], 'x') != static_cast<ptrdiff_t>(count)))
                wrong += std::string(row.kind) + (reading ? ": read; " : ": write; ");
        }
    return wrong;
}

CHILD_PROCESS(CopiesInASandbox) {
    child.Say(RefuseGuardCalls() ? CheckEveryKind(16) + CheckEveryKind(4000) : "");
    return 0;
}

} // namespace

TEST(ProcessMemory, EveryKindOfAddressBothWays) {
    for (const size_t size : {1U, 16U, 4000U}) {
        EXPECT_EQ(CheckEveryKind(size), "") << size;
        std::thread([size] { EXPECT_EQ(CheckEveryKind(size), "") << size << " in a thread"; }).join();
    }
    EXPECT_EQ(TestProcess("CopiesInASandbox").Hear(), "") << "where the calls that it likes are refused";
}

// Addresses that are settled without asking the system.
TEST(ProcessMemory, OwnStackAndConstantsAreCopiedAsTheyAre) {
    const auto check = [] {
        char frame[700] = "own", copy[700] = "";
        for (const size_t size : {0U, 1U, 7U, 8U, 63U, 699U}) {
            std::memset(copy, static_cast<int>(size), sizeof copy);
            ASSERT_TRUE(WriteProcessMemory(kSelf, frame, copy, size, nullptr));
            EXPECT_TRUE(std::memcmp(copy, frame, size) == 0 && copy[size] != frame[size]) << size;
        }
        std::vector<char> large(16U << 20); // leads out of the stack
        EXPECT_FALSE(ReadProcessMemory(kSelf, frame, large.data(), large.size(), nullptr));
    };
    check();
    std::thread(check).join();
    static const char constant[] = "PrinterStatus";
    char copy[sizeof constant];
    EXPECT_TRUE(ReadProcessMemory(kSelf, constant, copy, sizeof copy, nullptr));
    EXPECT_STREQ(copy, constant);
    EXPECT_FAILS(WriteProcessMemory(kSelf, const_cast<char*>(constant), "x", 1, nullptr), ERROR_NOACCESS);
}

TEST(ProcessMemory, MemoryThatGoesAwayMeanwhileGivesAnErrorAtMost) {
    BadMemory memory;
    std::atomic<bool> stop{false};
    std::thread racer([&] {
        for (bool forbidden = true; !stop; forbidden = !forbidden)
            memory.Forbid(forbidden);
    });
    unsigned outcomes[2] = {};
    char copy[256];
    for (int i = 0; i < 200'000 && (outcomes[0] < 500 || outcomes[1] < 500); ++i) {
        const BOOL done = i % 2 == 0 ? ReadProcessMemory(kSelf, memory.GoodPage(), copy, sizeof copy, nullptr)
                                     : WriteProcessMemory(kSelf, memory.GoodPage(), copy, sizeof copy, nullptr);
        ++outcomes[done != FALSE];
        EXPECT_TRUE(!done || (copy[0] == 'x' && copy[255] == 'x'));
        std::memset(copy, 'x', sizeof copy);
    }
    stop = true;
    racer.join();
    EXPECT_TRUE(outcomes[0] > 0 && outcomes[1] > 0) << "the race went one way only";
}

TEST(ProcessMemory, ForkedChildCopiesItsOwnMemory) {
    std::vector<int> value(1000, 1);
    const auto read = [&value] {
        int copy = 0;
        return ReadProcessMemory(kSelf, value.data(), &copy, sizeof copy, nullptr) ? copy : -1;
    };
    EXPECT_EQ(read(), 1);
    EXPECT_EQ(RunForked([&] {
                  value[0] = 2;
                  const int before = read(), three = 3;
                  WriteProcessMemory(kSelf, value.data(), &three, sizeof three, nullptr);
                  return before * 10 + value[0];
              }),
              23);
    EXPECT_EQ(read(), 1) << "the child wrote into its parent";
}

TEST(Heap, BlocksAreZeroedAlignedAndKnowTheirHeap) {
    HANDLE heap = HeapCreate(0, 32768, 0);
    HANDLE other = HeapCreate(0, 0, 0);
    for (const size_t size : {0U, 1U, 15U, 16U, 1000U, 100'000U, 5'000'000U}) {
        void* dirty = HeapAlloc(heap, 0, size);
        ASSERT_NE(dirty, nullptr);
        std::memset(dirty, 0xEE, size);
        EXPECT_FALSE(HeapFree(other, 0, dirty));
        EXPECT_TRUE(HeapFree(heap, 0, dirty));
        auto* block = static_cast<unsigned char*>(HeapAlloc(heap, HEAP_ZERO_MEMORY, size));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0U);
        EXPECT_EQ(std::count(block, block + size, 0), static_cast<ptrdiff_t>(size));
        EXPECT_TRUE(HeapFree(heap, 0, block));
    }
    for (const SIZE_T size : {SIZE_MAX, SIZE_MAX - 16, SIZE_MAX - 31, SIZE_MAX - 32, SIZE_MAX / 2}) {
        SetLastError(kSentinel);
        EXPECT_FALSE(HeapAlloc(heap, HEAP_ZERO_MEMORY, size) || HeapAlloc(heap, 0, size)) << size;
        EXPECT_EQ(GetLastError(), kSentinel) << "left alone";
    }
    EXPECT_TRUE(HeapDestroy(other) && HeapDestroy(heap));
}
