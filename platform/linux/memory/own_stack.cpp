#include "memory/own_stack.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace oriel {
namespace {

// The kernel keeps at least 128 MiB below the top of the main thread's stack free of other mappings.
constexpr uintptr_t kMainStackReach = 64U << 20;
// Below a frame: what the processor's calling convention lets it use, and the call that gives the pages back.
constexpr uintptr_t kInUse = 512;

} // namespace

AddressRange FindOwnStack() {
    AddressRange stack;
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return stack;
    void* lowest = nullptr;
    size_t size = 0;
    if (pthread_attr_getstack(&attributes, &lowest, &size) == 0 && lowest != nullptr) {
        stack.begin = reinterpret_cast<uintptr_t>(lowest);
        stack.end = stack.begin + size;
        if (stack.end - stack.begin > kMainStackReach) stack.begin = stack.end - kMainStackReach;
    }
    pthread_attr_destroy(&attributes);
    return stack;
}

void ReleaseUnusedStack() {
    const AddressRange stack = FindOwnStack();
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    if (!stack.Holds(frame, 0)) return; // a coroutine's, a signal's
    const uintptr_t end = (frame - kInUse) / page * page;
    if (end > stack.begin) madvise(reinterpret_cast<void*>(stack.begin), end - stack.begin, MADV_DONTNEED);
}

} // namespace oriel
