#include "system_calls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <iterator>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

bool SystemCall::Changes() const {
    constexpr uint64_t kChanging[] = {
        SYS_pwrite64,  SYS_write,  SYS_ftruncate, SYS_openat, SYS_unlinkat,
        SYS_renameat2, SYS_fchmod, SYS_mkdirat,   SYS_linkat, SYS_fchownat,
#ifdef SYS_unlink
        SYS_unlink,    SYS_rename, SYS_mkdir,     SYS_chmod,  SYS_open,
#endif
    };
    return std::find(std::begin(kChanging), std::end(kChanging), call) != std::end(kChanging);
}

bool SystemCall::Syncs() const {
    return call == SYS_fsync || call == SYS_fdatasync;
}

int RunInSteps(const std::function<int()>& function, const std::function<bool(const SystemCall&)>& look) {
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        _exit(function());
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSTOPPED(status)) << "system calls cannot be watched here";
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    SystemCall call{.process = child};
    long signal = 0;
    for (;;) {
        ptrace(PTRACE_SYSCALL, child, nullptr, signal); // fails for one that was killed
        if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) break;
        signal = WSTOPSIG(status) == (SIGTRAP | 0x80) ? 0 : WSTOPSIG(status);
        if (signal != 0) continue;
        __ptrace_syscall_info info{};
        ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        call.done = info.op == PTRACE_SYSCALL_INFO_EXIT;
        if (!call.done) {
            ++call.number;
            call.call = info.entry.nr;
            std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments);
        }
        if (!look(call)) kill(child, SIGKILL);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
