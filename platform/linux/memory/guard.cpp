// The fault guard. No signal handler, no descriptor and no lock of its own: it keeps nothing but constant addresses, of
// the process and of each thread, and the process's id.
//
// Three ways, the first that serves:
//
// - A plain copy, where the address cannot fault: in the calling thread's own stack between here and its top (the
//   frames of our callers, where most of them keep their buffers), and for reading in the constant segments of the
//   main program (where names in quotes lie), which stay for the life of the process. A few nanoseconds.
// - process_vm_readv and process_vm_writev on the own process. The kernel walks the pages with their protection; the
//   own process is never refused by dumpable flags or security modules. One system call.
// - Where a sandbox refuses those: through a pipe made for this one copy. The kernel takes and gives the caller's
//   bytes by its own fault-safe copying. Five system calls, and again nothing that outlives the call.
//
// A memory file kept for each thread with a mapping would save about 0.3 of the 1.7 us of the second way. It was
// measured and left: a hidden descriptor that the host program may close and reuse, a write that raises SIGXFSZ once
// the host lowers its file size limit, and a mapping that a forked child shares, in a guard that exists to be harmless.
#include "memory/guard.h"

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

struct AddressRange {
    uintptr_t begin = 0;
    uintptr_t end = 0;

    bool Holds(uintptr_t address, size_t size) const {
        return address >= begin && address <= end && size <= end - address;
    }
};

// Of the main thread's stack only this much is taken as such. The kernel keeps at least 128 MiB below its top free of
// other mappings, so nothing foreign can lie in between.
constexpr uintptr_t kMainStackReach = 64U << 20;

// This thread's stack; empty when it could not be found out.
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

// The part of the own stack that is in use, from the frame of an export's caller up. Empty on a stack that is not the
// thread's own (a coroutine, a signal stack).
bool InOwnFrames(const void* address, size_t size, const void* frame) {
    static thread_local bool known = false;
    static thread_local AddressRange stack;
    if (!known) [[unlikely]] {
        // Before the look-up, which reads /proc on the main thread: a signal that comes in between finds an empty
        // range.
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

// Segments of the main program that are loaded without the right to write. The last page of each is mapped whole.
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
        return 1; // the first module is the main program; no more are wanted
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

// A copy that no sanitizer looks into: the caller of an export may well hand over more than one object of its stack,
// and then it is for the export to say so.
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

// The process's id without a system call. It is kept on a page that the kernel clears in every kind of forked child:
// the parent's id would designate the wrong memory.
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

// A step of a long copy that ended short is taken on from where it stopped, so that the count is exact to the page.
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

// Both directions at once: the pipe takes the bytes from one address and gives them to the other, each by a raw call
// that a sanitizer does not take for an access of ours.
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
            step = PipeStep;
        } else {
            return false;
        }
    }
    return true;
}

// The ranges of a copy must not pass the end of the address space: adding would wrap.
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
