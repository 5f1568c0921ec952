// Keeps this process from mapping views of sections, as of published values. A library that is refused reads by calls.
// No state.
#pragma once

#include <cerrno>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

// For good, and for every thread that this one starts. False: the system has no such filter.
inline bool RefuseSections() {
    // A view of a section is a copy of a mapping: a move of no bytes. The number is that of the native system call table;
    // the length is compared by its low half (little-endian).
    constexpr unsigned kOldLength = offsetof(seccomp_data, args) + sizeof(__u64);
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_mremap, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kOldLength),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOMEM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{sizeof program / sizeof program[0], program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}
