/* A library to be loaded before others (LD_PRELOAD), in which the n-th call of a function fails, and the calls behind
 * it.
 *
 *   ORIEL_FAULT=FUNCTION:N:RUN  RUN calls from the N-th on fail; without it, none
 *   ORIEL_FAULT_PROGRAM=NAME    only in this program, not in those that it starts
 *   ORIEL_FAULT_COUNTS=FILE     at the end of the program: a line FUNCTION COUNT for each
 *   ORIEL_FAULT_FROM=main       not before main, in the constructors of libraries that are not ours
 *   ORIEL_FAULT_TRACE=1         prints where a signal ended the program
 *
 * A call fails with the error in the table below, and does nothing. Calls that the C library makes within itself are
 * not seen. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#define FUNCTIONS(F)                                                                                                   \
    F(malloc, ENOMEM)                                                                                                  \
    F(calloc, ENOMEM)                                                                                                  \
    F(realloc, ENOMEM)                                                                                                 \
    F(mmap, ENOMEM) F(open, EMFILE) F(openat, EMFILE) F(socket, EMFILE) F(connect, ECONNREFUSED) F(bind, EADDRINUSE)   \
        F(listen, EADDRINUSE) F(accept4, EMFILE) F(send, ENOBUFS) F(recv, ECONNRESET) F(sendmsg, ENOBUFS)              \
            F(recvmsg, ECONNRESET) F(read, EIO) F(write, ENOSPC) F(pread, EIO) F(pwrite, ENOSPC) F(fsync, EIO)         \
                F(fdatasync, EIO) F(ftruncate, ENOSPC) F(posix_fallocate, ENOSPC) F(flock, ENOLCK) F(mkdir, ENOSPC)    \
                    F(unlink, EACCES) F(rename, EACCES) F(setsockopt, ENOBUFS) F(poll, ENOMEM)                         \
                        F(epoll_create1, EMFILE) F(epoll_ctl, ENOMEM) F(pipe2, EMFILE) F(memfd_create, EMFILE)         \
                            F(dup, EMFILE) F(process_vm_readv, EPERM) F(process_vm_writev, EPERM)                      \
                                F(pthread_create, EAGAIN)

#define NUMBER(name, error) k_##name,
enum Function { FUNCTIONS(NUMBER) kCount };
#define NAME(name, error) #name,
static const char* const kNames[] = {FUNCTIONS(NAME)};
#define ERROR(name, error) error,
static const int kErrors[] = {FUNCTIONS(ERROR)};

static atomic_long g_calls[kCount];
static int g_function = -1;
static long g_first;
static long g_run;
static int g_armed;
static int g_armsInMain;
static char g_counts[4096];

/* Whether this call fails. */
static int Fails(enum Function function) {
    if (!g_armed) return 0;
    const long call = atomic_fetch_add(&g_calls[function], 1) + 1;
    if ((int)function != g_function || call < g_first || call >= g_first + g_run) return 0;
    errno = kErrors[function];
    return 1;
}

static void* Real(const char* name) {
    return dlsym(RTLD_NEXT, name);
}

static void Trace(int number) {
    void* frames[64];
    g_armed = 0;
    backtrace_symbols_fd(frames, backtrace(frames, 64), 2);
    signal(number, SIG_DFL);
    raise(number);
}

__attribute__((constructor)) static void Arm(void) {
    const char* program = getenv("ORIEL_FAULT_PROGRAM");
    if (program != NULL && strcmp(program, program_invocation_short_name) != 0) return;
    const char* counts = getenv("ORIEL_FAULT_COUNTS");
    if (counts != NULL) snprintf(g_counts, sizeof g_counts, "%s", counts);
    const char* fault = getenv("ORIEL_FAULT");
    char name[32];
    if (fault != NULL && sscanf(fault, "%31[^:]:%ld:%ld", name, &g_first, &g_run) == 3)
        for (int i = 0; i < kCount; ++i)
            if (strcmp(name, kNames[i]) == 0) g_function = i;
    if (getenv("ORIEL_FAULT_TRACE") != NULL) {
        signal(SIGABRT, Trace);
        signal(SIGSEGV, Trace);
    }
    const char* from = getenv("ORIEL_FAULT_FROM");
    g_armsInMain = from != NULL && strcmp(from, "main") == 0;
    g_armed = !g_armsInMain;
}

/* The C library calls this with the program's main. */
static int (*g_main)(int, char**, char**);
static int ArmedMain(int count, char** arguments, char** environment) {
    if (g_armsInMain) g_armed = 1;
    return g_main(count, arguments, environment);
}
typedef int Start(int (*)(int, char**, char**), int, char**, void (*)(void), void (*)(void), void (*)(void), void*);
__attribute__((visibility("default"))) int __libc_start_main(int (*program)(int, char**, char**), int count,
                                                             char** arguments, void (*init)(void), void (*fini)(void),
                                                             void (*loader)(void), void* stack) {
    g_main = program;
    return ((Start*)Real("__libc_start_main"))(ArmedMain, count, arguments, init, fini, loader, stack);
}

__attribute__((destructor)) static void Tell(void) {
    if (!g_armed) return;
    g_armed = 0;
    if (g_counts[0] == '\0') return;
    FILE* file = fopen(g_counts, "w");
    for (int i = 0; file != NULL && i < kCount; ++i)
        fprintf(file, "%s %ld\n", kNames[i], (long)g_calls[i]);
    if (file != NULL) fclose(file);
}

#pragma GCC visibility push(default) /* the functions that are replaced */

/* Allocations, by the next library that has them: a leak checker, or the C library. */
#define WRAP_ALLOCATION(name, parameters, arguments)                                                                   \
    void* name parameters {                                                                                            \
        static void*(*real) parameters;                                                                                \
        if (real == NULL) real = (void*(*) parameters)Real(#name);                                                     \
        return Fails(k_##name) ? NULL : real arguments;                                                                \
    }
WRAP_ALLOCATION(malloc, (size_t size), (size))
WRAP_ALLOCATION(calloc, (size_t count, size_t size), (count, size))
WRAP_ALLOCATION(realloc, (void* block, size_t size), (block, size))

/* operator new, which a leak checker has of its own: throwing, and with std::nothrow. */
extern void _ZSt17__throw_bad_allocv(void) __attribute__((weak));
void* _Znwm(size_t size) {
    void* block = malloc(size != 0 ? size : 1);
    if (block == NULL) _ZSt17__throw_bad_allocv();
    return block;
}
void* _Znam(size_t size) {
    return _Znwm(size);
}
void* _ZnwmRKSt9nothrow_t(size_t size, const void* nothrow) {
    (void)nothrow;
    return malloc(size != 0 ? size : 1);
}
void* _ZnamRKSt9nothrow_t(size_t size, const void* nothrow) {
    return _ZnwmRKSt9nothrow_t(size, nothrow);
}

#define WRAP(result, name, failed, parameters, arguments)                                                              \
    result name parameters {                                                                                           \
        static result(*real) parameters;                                                                               \
        if (real == NULL) real = (result(*) parameters)Real(#name);                                                    \
        if (Fails(k_##name)) return failed;                                                                            \
        return real arguments;                                                                                         \
    }

WRAP(void*, mmap, MAP_FAILED, (void* a, size_t n, int p, int f, int d, off_t o), (a, n, p, f, d, o))
WRAP(int, socket, -1, (int a, int b, int c), (a, b, c))
WRAP(int, connect, -1, (int a, const struct sockaddr* b, socklen_t c), (a, b, c))
WRAP(int, bind, -1, (int a, const struct sockaddr* b, socklen_t c), (a, b, c))
WRAP(int, listen, -1, (int a, int b), (a, b))
WRAP(int, accept4, -1, (int a, struct sockaddr* b, socklen_t* c, int d), (a, b, c, d))
WRAP(ssize_t, send, -1, (int a, const void* b, size_t c, int d), (a, b, c, d))
WRAP(ssize_t, recv, -1, (int a, void* b, size_t c, int d), (a, b, c, d))
WRAP(ssize_t, sendmsg, -1, (int a, const struct msghdr* b, int c), (a, b, c))
WRAP(ssize_t, recvmsg, -1, (int a, struct msghdr* b, int c), (a, b, c))
WRAP(ssize_t, read, -1, (int a, void* b, size_t c), (a, b, c))
WRAP(ssize_t, pread, -1, (int a, void* b, size_t c, off_t d), (a, b, c, d))
WRAP(ssize_t, pwrite, -1, (int a, const void* b, size_t c, off_t d), (a, b, c, d))
WRAP(int, fsync, -1, (int a), (a))
WRAP(int, fdatasync, -1, (int a), (a))
WRAP(int, ftruncate, -1, (int a, off_t b), (a, b))
WRAP(int, posix_fallocate, ENOSPC, (int a, off_t b, off_t c), (a, b, c))
WRAP(int, flock, -1, (int a, int b), (a, b))
WRAP(int, mkdir, -1, (const char* a, mode_t b), (a, b))
WRAP(int, unlink, -1, (const char* a), (a))
WRAP(int, rename, -1, (const char* a, const char* b), (a, b))
WRAP(int, setsockopt, -1, (int a, int b, int c, const void* d, socklen_t e), (a, b, c, d, e))
WRAP(int, poll, -1, (struct pollfd * a, nfds_t b, int c), (a, b, c))
WRAP(int, epoll_create1, -1, (int a), (a))
WRAP(int, epoll_ctl, -1, (int a, int b, int c, struct epoll_event* d), (a, b, c, d))
WRAP(int, pipe2, -1, (int a[2], int b), (a, b))
WRAP(int, memfd_create, -1, (const char* a, unsigned int b), (a, b))
WRAP(int, dup, -1, (int a), (a))
WRAP(ssize_t, process_vm_readv, -1,
     (pid_t a, const struct iovec* b, unsigned long c, const struct iovec* d, unsigned long e, unsigned long f),
     (a, b, c, d, e, f))
WRAP(ssize_t, process_vm_writev, -1,
     (pid_t a, const struct iovec* b, unsigned long c, const struct iovec* d, unsigned long e, unsigned long f),
     (a, b, c, d, e, f))
WRAP(int, pthread_create, EAGAIN, (pthread_t * a, const pthread_attr_t* b, void* (*c)(void*), void* d), (a, b, c, d))

/* The disk is full: what is not a file has no disk. */
ssize_t write(int descriptor, const void* bytes, size_t size) {
    static ssize_t (*real)(int, const void*, size_t);
    if (real == NULL) real = (ssize_t(*)(int, const void*, size_t))Real("write");
    struct stat status;
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && Fails(k_write)) return -1;
    return real(descriptor, bytes, size);
}

#define WRAP_OPEN(name, parameters, first, last, arguments)                                                            \
    int name parameters {                                                                                              \
        static int(*real) parameters;                                                                                  \
        if (real == NULL) real = (int(*) parameters)Real(#name);                                                       \
        mode_t mode = 0;                                                                                               \
        va_list list;                                                                                                  \
        va_start(list, last);                                                                                          \
        if ((last & (O_CREAT | O_TMPFILE)) != 0) mode = va_arg(list, mode_t);                                          \
        va_end(list);                                                                                                  \
        if (Fails(k_##name)) return -1;                                                                                \
        return real arguments;                                                                                         \
    }
WRAP_OPEN(open, (const char* path, int flags, ...), path, flags, (path, flags, mode))
WRAP_OPEN(openat, (int folder, const char* path, int flags, ...), folder, flags, (folder, path, flags, mode))
