// The memory kit over POSIX and Linux.
#include "memory_kit.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

unsigned char* Map(size_t size, int file = -1, uintptr_t place = 0) {
    const int flags = file < 0 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED;
    void* memory = mmap(reinterpret_cast<void*>(place), size, PROT_READ | PROT_WRITE, flags, file, 0);
    if (memory != MAP_FAILED) return static_cast<unsigned char*>(memory);
    ADD_FAILURE() << "mmap: " << std::strerror(errno);
    std::abort();
}

} // namespace

BadMemory::BadMemory() : m_page(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
    m_good = Map(2 * m_page);
    m_readOnly = Map(m_page);
    // Far from where the system puts mappings of its own choice, one of which would soon fill the hole.
    constexpr uintptr_t kLonely = 0x40000000;
    m_unmapped = Map(2 * m_page, -1, kLonely);
    const int file = memfd_create("one page", MFD_CLOEXEC);
    EXPECT_EQ(ftruncate(file, static_cast<off_t>(m_page)), 0);
    m_file = Map(2 * m_page, file);
    close(file);
    for (unsigned char* page : {m_good, m_readOnly, m_unmapped, m_file})
        std::memset(page, 'x', m_page);
    EXPECT_EQ(mprotect(m_good + m_page, m_page, PROT_NONE), 0);
    EXPECT_EQ(mprotect(m_readOnly, m_page, PROT_READ), 0);
    EXPECT_EQ(munmap(m_unmapped + m_page, m_page), 0);
}

BadMemory::~BadMemory() {
    munmap(m_good, 2 * m_page);
    munmap(m_readOnly, m_page);
    munmap(m_unmapped, m_page);
    munmap(m_file, 2 * m_page);
}

void BadMemory::Forbid(bool forbidden) {
    mprotect(m_good, m_page, forbidden ? PROT_NONE : PROT_READ | PROT_WRITE);
}

bool RefuseGuardCalls() {
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_readv, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_writev, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
    };
    const sock_fprog program{std::size(rules), rules};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

int RunForked(const std::function<int()>& function) {
    const pid_t child = fork();
    if (child == 0) _exit(function());
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
