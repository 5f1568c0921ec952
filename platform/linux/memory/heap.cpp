// Private heaps, on top of the allocator of the C library.
//
// A heap is a set of lists of its blocks, so that HeapDestroy can free what is left. Each list has its own lock, and a
// thread always uses the same list, so threads that allocate at the same time rarely wait for each other. Fork takes
// the locks of all heaps, so the heaps of a child are usable.
//
// State: the list of heaps; each heap and its blocks.
#include "base/call.h"
#include "base/list.h"
#include "base/lock.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <heapapi.h>
#include <new>
#include <pthread.h>

namespace oriel {
namespace {

// Precedes every block. A freed block loses its tag, so a second free is detected until the memory is used again.
struct alignas(16) BlockHeader {
    BlockHeader* previous;
    BlockHeader* next;
    uintptr_t tag; // address of the heap's list that the block is on; 0 when free
};
static_assert(sizeof(BlockHeader) == 32);
constexpr size_t kLargestBlock = PTRDIFF_MAX - sizeof(BlockHeader);

// On a cache line of its own.
struct alignas(64) BlockList {
    Lock lock;
    List<BlockHeader> blocks;
};

constexpr unsigned kListCount = 8;
constexpr uint32_t kHeapMagic = 0x50414548; // "HEAP"

struct Heap {
    uint32_t magic = kHeapMagic;
    Heap* previous = nullptr;
    Heap* next = nullptr;
    BlockList lists[kListCount];
};

Lock g_heapsLock;
List<Heap> g_heaps ORIEL_LOCK_CHECK(guarded_by(g_heapsLock));

// Around fork: the child gets whole lists and free locks.
void LockAllHeaps() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_heapsLock.Acquire();
    for (Heap& heap : g_heaps)
        for (BlockList& list : heap.lists)
            list.lock.Acquire();
}

void UnlockAllHeaps() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    for (Heap& heap : g_heaps)
        for (BlockList& list : heap.lists)
            list.lock.Release();
    g_heapsLock.Release();
}

Heap* HeapOf(HANDLE handle) {
    auto* heap = static_cast<Heap*>(handle);
    if (heap != nullptr && reinterpret_cast<uintptr_t>(heap) % alignof(Heap) == 0 && heap->magic == kHeapMagic)
        return heap;
    return Fail<Heap*>(ERROR_INVALID_HANDLE);
}

BlockList& OwnList(Heap& heap) {
    // Threads are spread over the lists in the order of their first allocation.
    static std::atomic<unsigned> threads{0};
    static thread_local const unsigned index = threads.fetch_add(1, std::memory_order_relaxed) % kListCount;
    return heap.lists[index];
}

// The list of a block, which also identifies the heap. Null when the block is not from this heap.
BlockList* ListOf(Heap& heap, const BlockHeader* header) {
    const auto begin = reinterpret_cast<uintptr_t>(&heap.lists[0]);
    const uintptr_t offset = header->tag - begin;
    if (offset >= sizeof heap.lists || offset % sizeof(BlockList) != 0)
        return Fail<BlockList*>(ERROR_INVALID_PARAMETER);
    return &heap.lists[offset / sizeof(BlockList)];
}

bool RefusedFlags(DWORD flags, DWORD known) {
    if ((flags & ~known) == 0) return false;
    SetLastError(ERROR_INVALID_PARAMETER);
    return true;
}

} // namespace
} // namespace oriel

using namespace oriel;

HANDLE WINAPI HeapCreate(DWORD options, SIZE_T, SIZE_T maximumSize) {
    if (options != 0 || maximumSize != 0) return Fail<HANDLE>(ERROR_INVALID_PARAMETER);
    auto* heap = new (std::nothrow) Heap;
    if (heap == nullptr) return Fail<HANDLE>(ERROR_NOT_ENOUGH_MEMORY);
    static const int forkHandlers = pthread_atfork(LockAllHeaps, UnlockAllHeaps, UnlockAllHeaps);
    static_cast<void>(forkHandlers); // if they cannot be installed, only fork children suffer
    const LockHold hold(g_heapsLock);
    g_heaps.Add(*heap);
    return heap;
}

BOOL WINAPI HeapDestroy(HANDLE handle) {
    Heap* heap = HeapOf(handle);
    if (heap == nullptr) return FALSE;
    {
        const LockHold hold(g_heapsLock);
        g_heaps.Remove(*heap);
    }
    heap->magic = 0;
    for (BlockList& list : heap->lists) {
        while (BlockHeader* header = list.blocks.First()) {
            list.blocks.Remove(*header);
            std::free(header);
        }
    }
    delete heap;
    return TRUE;
}

LPVOID WINAPI HeapAlloc(HANDLE handle, DWORD flags, SIZE_T bytes) {
    Heap* heap = HeapOf(handle);
    if (heap == nullptr || RefusedFlags(flags, HEAP_ZERO_MEMORY)) return nullptr;
    // As on Windows, the heap functions do not set the last error when memory is lacking.
    if (bytes > kLargestBlock) return nullptr;
    const TerminationHold whole; // the allocator of the C library has locks too
    const size_t size = bytes + sizeof(BlockHeader);
    void* memory = (flags & HEAP_ZERO_MEMORY) != 0 ? std::calloc(1, size) : std::malloc(size);
    if (memory == nullptr) return nullptr;
    BlockList& list = OwnList(*heap);
    auto* header = new (memory) BlockHeader;
    header->tag = reinterpret_cast<uintptr_t>(&list);
    const LockHold hold(list.lock);
    list.blocks.Add(*header);
    return header + 1;
}

BOOL WINAPI HeapFree(HANDLE handle, DWORD flags, LPVOID block) {
    Heap* heap = HeapOf(handle);
    if (heap == nullptr || RefusedFlags(flags, 0)) return FALSE;
    if (block == nullptr) return TRUE;
    auto* header = static_cast<BlockHeader*>(block) - 1;
    BlockList* list = ListOf(*heap, header);
    if (list == nullptr) return FALSE;
    const TerminationHold whole;
    {
        const LockHold hold(list->lock);
        list->blocks.Remove(*header);
    }
    *static_cast<volatile uintptr_t*>(&header->tag) = 0; // volatile: the compiler would drop this write as dead
    std::free(header);
    return TRUE;
}
