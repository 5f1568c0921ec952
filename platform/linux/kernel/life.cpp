// OrielTellLife: a word that the kernel marks when this process ends.
//
// The kernel has a list of robust futexes for each thread, and marks the words of a thread that ends, however it ends:
// FUTEX_OWNER_DIED in a word that holds the thread's number. The C library has a list for each of its threads, with
// words at one distance from their entries. A thread of our own, which only sleeps until the process ends, has another
// list with one entry in our memory, whose distance to the word is free. State: that list.
#include "base/call.h"
#include "base/futex.h"
#include "kernel/thread.h"

#include <atomic>
#include <cstdint>
#include <errhandlingapi.h>
#include <linux/futex.h>
#include <oriel_life.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <winerror.h>

namespace oriel {
namespace {

static_assert(ORIEL_LIFE_ENDED == FUTEX_OWNER_DIED);

constinit robust_list g_entry{};
constinit robust_list_head g_list{{&g_entry}, 0, nullptr};
constinit std::atomic<bool> g_told{false};
constinit Word g_begun{0}; // 1: the word is set. 2: the kernel keeps no list
constinit Word g_never{0};

constexpr uint32_t kTold = 1;
constexpr uint32_t kRefused = 2;

void* LifeThread(void* parameter) {
    auto* word = static_cast<Word*>(parameter);
    g_entry.next = &g_list.list;
    g_list.futex_offset = reinterpret_cast<intptr_t>(word) - reinterpret_cast<intptr_t>(&g_entry);
    const bool kept = syscall(SYS_set_robust_list, &g_list, sizeof g_list) == 0;
    if (kept) word->store(static_cast<uint32_t>(syscall(SYS_gettid)), std::memory_order_release);
    g_begun.store(kept ? kTold : kRefused, std::memory_order_release);
    WakeAll(g_begun, false);
    if (!kept) return nullptr;
    const SleepPoint never{&g_never, 0, false};
    for (;;) // until the process ends
        SleepOn(&never, 1, kNever);
}

} // namespace
} // namespace oriel

using namespace oriel;

BOOL WINAPI OrielTellLife(DWORD* word) {
    const TerminationHold hold;
    if (word == nullptr || reinterpret_cast<uintptr_t>(word) % sizeof *word != 0) return Fail(ERROR_INVALID_PARAMETER);
    if (g_told.exchange(true)) return Fail(ERROR_ALREADY_EXISTS);
    const bool started = StartThread(kOwnStackSize, LifeThread, word) == 0;
    if (!started) {
        g_told = false;
        return Fail(ERROR_NO_SYSTEM_RESOURCES);
    }
    uint32_t begun = 0;
    while ((begun = g_begun.load(std::memory_order_acquire)) == 0) {
        const SleepPoint point{&g_begun, 0, false};
        SleepOn(&point, 1, kNever); // bounded: the thread's first steps wait for nobody
    }
    return begun == kTold ? TRUE : Fail(ERROR_NO_SYSTEM_RESOURCES);
}
