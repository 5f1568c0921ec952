// What a read costs beside time: bench_count READER PRINTER prints "CALLS ALLOCATIONS", of one read of "PrinterStatus".
//
//   stack     name, value and size are on the stack of the caller
//   heap      they are in memory of the heap, which the library cannot trust
//   by-call   as "stack", in a process that cannot map published values
//
// The reader runs as a child under ptrace, which counts the system calls of its main thread between two marks. That
// needs no privilege, and works in a container. Allocations are counted by functions that stand before those of the C
// library. State: the count of allocations of each thread.
#include <tvsqdz.h>

#include "no_section.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

static thread_local long t_allocations = 0;

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size) {
    ++t_allocations;
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    ++t_allocations;
    return __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
    ++t_allocations;
    return __libc_realloc(block, size);
}
}

namespace {

constexpr int kReads = 1000;
constexpr long kMark = SYS_getppid; // the library does not use it
constexpr uint32_t kClientKind = 3; // needs no initialised product and starts nothing

struct Arguments {
    char name[16] = "PrinterStatus";
    char value[12];
    uint32_t size;
};

int Read(const std::string& reader, const char* printer) {
    if (reader == "by-call" && !RefuseSections()) return 1;
    TvsManager manager = 0;
    if (OpenManagerExA(printer, "bench", kClientKind, &manager) != TVS_OK) return 1;
    Arguments onStack;
    auto* onHeap = new Arguments;
    Arguments& arguments = reader == "heap" ? *onHeap : onStack;
    const auto read = [&] {
        return GetPrinterStatusA(manager, arguments.name, arguments.value, sizeof arguments.value, &arguments.size) ==
               TVS_OK;
    };
    bool whole = read(); // the first one maps what it needs
    const long before = t_allocations;
    syscall(kMark);
    for (int i = 0; i < kReads; ++i)
        whole = read() && whole;
    syscall(kMark);
    std::printf("%g\n", static_cast<double>(t_allocations - before) / kReads);
    delete onHeap;
    CloseManager(manager);
    return whole ? 0 : 1;
}

// -1: the child failed.
double CountCalls(pid_t child) {
    long calls = 0;
    int marks = 0;
    int status = 0;
    int signal = 0;
    if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return -1; // at its exec
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    while (ptrace(PTRACE_SYSCALL, child, nullptr, signal) == 0 && waitpid(child, &status, 0) == child) {
        if (WIFEXITED(status)) return WEXITSTATUS(status) == 0 && marks == 2 ? static_cast<double>(calls) / kReads : -1;
        if (!WIFSTOPPED(status)) return -1;
        signal = 0;
        if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
            signal = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
            continue;
        }
        __ptrace_syscall_info info{};
        ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
        if (static_cast<long>(info.entry.nr) == kMark)
            ++marks;
        else if (marks == 1)
            ++calls;
    }
    return -1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "traced") == 0) return Read(argv[2], argv[3]);
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_count stack|heap|by-call PRINTER\n");
        return 2;
    }
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        execl("/proc/self/exe", argv[0], "traced", argv[1], argv[2], nullptr);
        _exit(1);
    }
    const double calls = CountCalls(child);
    if (calls < 0) {
        std::fprintf(stderr, "bench_count: the reader failed, or cannot be traced\n");
        return 1;
    }
    std::printf("%g\n", calls);
    return 0;
}
