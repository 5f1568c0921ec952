// Keeps this process from mapping sections read-only, as published values are. A library that is refused reads by
// calls. No state.
#pragma once

#include <cerrno>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

// For good, and for every thread that this one starts. False: the system has no such filter.
inline bool RefuseSections() {
    // Numbers of the native system call table; the arguments are compared by their low halves (little-endian).
    constexpr auto argument = [](size_t i) {
        return static_cast<unsigned>(offsetof(seccomp_data, args) + i * sizeof(__u64));
    };
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_mmap, 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(2)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PROT_READ, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(3)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, MAP_SHARED, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOMEM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{sizeof program / sizeof program[0], program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}
