// The fault guard. It has no signal handler, no descriptor and no lock. State: constant addresses of the process and of
// each thread, and the process id.
//
// There are three ways to copy; the first that applies is used:
//
// - A plain copy, where the address cannot fault: in the stack of the calling thread from here to its top (the frames
//   of our callers, where most of them keep their buffers), and for reads in the constant segments of the main program
//   (its string literals), which stay mapped. A few nanoseconds.
// - process_vm_readv and process_vm_writev on this process. The kernel respects the protection of the pages. Dumpable
//   flags and security modules never refuse a process access to itself. One system call.
// - Where a sandbox forbids those, a pipe for this one copy: the kernel copies fault-safely in and out. Five system
//   calls, and nothing outlives the call.
//
// A memory file for each thread with a mapping would save about 0.3 of the 1.7 us of the second way. It was measured
// and rejected: the host program could close and reuse its descriptor, a write could raise SIGXFSZ under a lowered file
// size limit, and fork children would share the mapping.
#include "memory/guard.h"

#include "memory/own_stack.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <iterator>
#include <link.h>
#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace oriel {
namespace {

// True for the used part of the thread's stack, from the frame of an export's caller up. False on a stack that is not
// the thread's own (a coroutine, a signal stack).
bool InOwnFrames(const void* address, size_t size, const void* frame) {
    static thread_local bool known = false;
    static thread_local AddressRange stack;
    if (!known) [[unlikely]] {
        // Before the look-up, which reads /proc on the main thread: a signal handler that comes in between sees an
        // empty range.
        known = true;
        stack = FindOwnStack();
    }
    const auto here = reinterpret_cast<uintptr_t>(frame);
    if (here < stack.begin || here >= stack.end) return false;
    return AddressRange{here, stack.end}.Holds(reinterpret_cast<uintptr_t>(address), size);
}

constexpr size_t kMaxConstantSegments = 4;
struct ConstantSegments {
    AddressRange ranges[kMaxConstantSegments];
};

// The segments of the main program that are not writable. Their last page is mapped as a whole.
ConstantSegments FindConstantSegments() {
    ConstantSegments found;
    const auto collect = [](dl_phdr_info* module, size_t, void* context) {
        auto& segments = *static_cast<ConstantSegments*>(context);
        const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
        size_t count = 0;
        for (int i = 0; i < module->dlpi_phnum && count < kMaxConstantSegments; ++i) {
            const auto& header = module->dlpi_phdr[i];
            if (header.p_type != PT_LOAD || (header.p_flags & PF_R) == 0 || (header.p_flags & PF_W) != 0) continue;
            const uintptr_t begin = module->dlpi_addr + header.p_vaddr;
            segments.ranges[count++] = {begin, (begin + header.p_memsz + page - 1) & ~(page - 1)};
        }
        return 1; // the first module is the main program: stop
    };
    dl_iterate_phdr(collect, &found);
    return found;
}

bool InConstantSegments(const void* address, size_t size) {
    static const ConstantSegments segments = FindConstantSegments();
    return std::any_of(std::begin(segments.ranges), std::end(segments.ranges), [&](const AddressRange& range) {
        return range.Holds(reinterpret_cast<uintptr_t>(address), size);
    });
}

// Hidden from sanitizers: a caller of an export may pass memory that spans several objects of its stack, and the export
// itself reports that.
__attribute__((no_sanitize("address", "thread", "undefined"))) void PlainCopy(void* to, const void* from, size_t size) {
#if defined(__x86_64__)
    asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(size) : : "memory");
#else
    auto* target = static_cast<volatile unsigned char*>(to);
    const auto* source = static_cast<const volatile unsigned char*>(from);
    while (size-- > 0)
        *target++ = *source++;
#endif
}

// The process id without a system call. It is on a page that the kernel clears in every kind of fork child: the id of
// the parent would name the wrong memory.
pid_t OwnProcessId() {
    static std::atomic<pid_t>* const kept = []() -> std::atomic<pid_t>* {
        const auto size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        void* page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (page == MAP_FAILED) return nullptr;
        if (madvise(page, size, MADV_WIPEONFORK) == 0) return new (page) std::atomic<pid_t>(0);
        munmap(page, size);
        return nullptr;
    }();
    if (kept == nullptr) return getpid();
    pid_t id = kept->load(std::memory_order_relaxed);
    if (id == 0) {
        id = getpid();
        kept->store(id, std::memory_order_relaxed);
    }
    return id;
}

// After a short step the copy continues where it stopped, so the count is exact to the page.
constexpr size_t kLargestStep = 1U << 30;

using Step = ssize_t (*)(void* to, const void* from, size_t size);

ssize_t ReadStep(void* to, const void* from, size_t size) {
    const iovec local{to, size};
    const iovec remote{const_cast<void*>(from), size};
    return process_vm_readv(OwnProcessId(), &local, 1, &remote, 1, 0);
}

ssize_t WriteStep(void* to, const void* from, size_t size) {
    const iovec local{const_cast<void*>(from), size};
    const iovec remote{to, size};
    return process_vm_writev(OwnProcessId(), &local, 1, &remote, 1, 0);
}

// One copy through a pipe, in and out. The raw calls are no accesses of this code to a sanitizer.
ssize_t PipeStep(void* to, const void* from, size_t size) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
    ssize_t count = syscall(SYS_write, ends[1], from, size);
    if (count > 0) count = syscall(SYS_read, ends[0], to, static_cast<size_t>(count));
    const int error = errno;
    close(ends[0]);
    close(ends[1]);
    errno = error;
    return count;
}

bool CopyInSteps(Step step, void* to, const void* from, size_t size, size_t* copied) {
    *copied = 0;
    while (*copied < size) {
        auto* target = static_cast<char*>(to) + *copied;
        const auto* source = static_cast<const char*>(from) + *copied;
        const ssize_t count = step(target, source, std::min(size - *copied, kLargestStep));
        if (count > 0) {
            *copied += static_cast<size_t>(count);
        } else if (count < 0 && (errno == EPERM || errno == ENOSYS) && step != PipeStep) {
            // A sandbox forbids the call; a bad address is EFAULT.
            step = PipeStep;
        } else {
            return false;
        }
    }
    return true;
}

// A range that passes the end of the address space: the sum would wrap around.
bool Wraps(const void* address, size_t size) {
    return size > UINTPTR_MAX - reinterpret_cast<uintptr_t>(address);
}

bool GuardedCopyOf(Step step, void* to, const void* from, size_t size, size_t* copied) {
    const int error = errno;
    const bool whole = !Wraps(from, size) && !Wraps(to, size) && CopyInSteps(step, to, from, size, copied);
    errno = error;
    return whole;
}

} // namespace

bool GuardedRead(void* to, const void* from, size_t size, size_t* copied) {
    if (InOwnFrames(from, size, __builtin_frame_address(0)) || InConstantSegments(from, size)) {
        PlainCopy(to, from, size);
        *copied = size;
        return true;
    }
    *copied = 0;
    return GuardedCopyOf(ReadStep, to, from, size, copied);
}

bool GuardedWrite(void* to, const void* from, size_t size, size_t* copied) {
    if (InOwnFrames(to, size, __builtin_frame_address(0))) {
        PlainCopy(to, from, size);
        *copied = size;
        return true;
    }
    *copied = 0;
    return GuardedCopyOf(WriteStep, to, from, size, copied);
}

} // namespace oriel
