// Credentials by system calls of the thread, because the setters of the C library change every thread of the process.
// The kernel knows what a thread acts as; we keep what it was before.
//
// State: t_own and t_client of each thread; g_firstThreadsOwn, that of the first thread, from which other threads read
// the credentials of the process.
#include "security/credentials.h"

#include "base/descriptor.h"
#include "base/lock.h"
#include "base/steps.h"
#include "base/thread_end.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <winerror.h>

namespace oriel {
namespace {

constexpr long kUnchanged = -1;
constexpr size_t kStatusChunk = 4096;
constexpr size_t kEffective = 1; // index in a line: real, effective, saved, file system

bool SetGroups(const std::vector<gid_t>& groups) {
    return syscall(SYS_setgroups, groups.size(), groups.data()) == 0;
}

bool SetGroup(gid_t group) {
    return syscall(SYS_setresgid, kUnchanged, group, kUnchanged) == 0;
}

bool SetUser(uid_t user) {
    return syscall(SYS_setresuid, kUnchanged, user, kUnchanged) == 0;
}

std::vector<gid_t> Sorted(std::vector<gid_t> groups) {
    std::sort(groups.begin(), groups.end());
    return groups;
}

// The numbers in a line of a status file; empty when there is no such line.
std::vector<unsigned> Numbers(std::string_view status, std::string_view title) {
    std::vector<unsigned> numbers;
    const size_t at = status.find(title);
    if (at == std::string_view::npos) return numbers;
    std::string_view line = status.substr(at + title.size());
    line = line.substr(0, line.find('\n'));
    while (true) {
        line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
        unsigned number = 0;
        const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
        if (error != std::errc()) return numbers;
        numbers.push_back(number);
        line.remove_prefix(static_cast<size_t>(end - line.data()));
    }
}

// Empty when there is no such process.
std::string StatusFile(pid_t process) {
    const std::string path = "/proc/" + std::to_string(process) + "/status";
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string status;
    for (size_t size = 0;;) {
        status.resize(size + kStatusChunk);
        const ssize_t got = read(file.Get(), status.data() + size, kStatusChunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return {};
        size += static_cast<size_t>(got);
        if (got == 0) {
            status.resize(size);
            return status;
        }
    }
}

} // namespace

Credentials ThreadCredentials() {
    Credentials credentials{.user = geteuid(), .group = getegid()};
    // Only this thread can change the count.
    const int count = getgroups(0, nullptr);
    credentials.groups.resize(count > 0 ? static_cast<size_t>(count) : 0);
    if (count > 0 && getgroups(count, credentials.groups.data()) != count) credentials.groups.clear();
    std::sort(credentials.groups.begin(), credentials.groups.end());
    return credentials;
}

bool ProcessCredentials(pid_t process, Credentials& credentials) {
    const std::string status = StatusFile(process);
    const std::vector<unsigned> users = Numbers(status, "\nUid:");
    const std::vector<unsigned> groups = Numbers(status, "\nGid:");
    if (users.size() <= kEffective || groups.size() <= kEffective) return false;
    credentials = {users[kEffective], groups[kEffective], Sorted(Numbers(status, "\nGroups:"))};
    return true;
}

bool TakeOn(const Credentials& credentials) {
    const Credentials before = ThreadCredentials();
    if (before == credentials) return true;
    // The right to change groups comes with the user: the user changes first on the way up, last on the way down.
    const bool up = credentials.user == 0;
    if (up && !SetUser(credentials.user)) return false;
    const bool groups = before.groups == credentials.groups || SetGroups(credentials.groups);
    const bool group = groups && SetGroup(credentials.group);
    if (group && (up || SetUser(credentials.user))) return true;
    // What was allowed on the way in is allowed on the way back. Otherwise the thread would continue as a mixture of
    // two users, which no code may run as.
    const bool undone = (!groups || before.groups == credentials.groups || SetGroups(before.groups)) &&
                        (!group || SetGroup(before.group)) && (!up || SetUser(before.user));
    if (!undone) std::abort();
    return false;
}

namespace {

bool IsFirstThread() {
    return syscall(SYS_gettid) == getpid();
}

constinit Lock g_firstThreadLock;
const Credentials* g_firstThreadsOwn ORIEL_LOCK_CHECK(guarded_by(g_firstThreadLock)) = nullptr;

// Null: the layer does not make the thread impersonate.
constinit thread_local const Credentials* t_own = nullptr;
constinit thread_local const Credentials* t_client = nullptr; // the client of a server thread

void SetOwn(std::unique_ptr<const Credentials> own) {
    if (t_own == nullptr && own == nullptr) return;
    LockHold hold(g_firstThreadLock);
    delete std::exchange(t_own, own.release());
    if (IsFirstThread()) g_firstThreadsOwn = t_own;
}

// Frees them at the end of a thread that impersonates.
const ThreadEnd kEnd([](void*) {
    SetOwn(nullptr);
    delete std::exchange(t_client, nullptr);
});

// The thread that forked is the first one of the child.
void InForkChild() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_firstThreadsOwn = t_own;
    g_firstThreadLock.ForgetOwner();
}

// The effective and saved users differ only in a thread that may return to another user.
bool MayActForAnother() {
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    return t_own != nullptr || (getresuid(&real, &effective, &saved) == 0 && effective != saved);
}

} // namespace

const ForkSteps kImpersonationFork{TakeForFork<g_firstThreadLock>, ReleaseAfterFork<g_firstThreadLock>, InForkChild};

Credentials OwnCredentials() {
    if (t_own != nullptr) return *t_own;
    if (IsFirstThread()) return ThreadCredentials();
    LockHold hold(g_firstThreadLock);
    if (g_firstThreadsOwn != nullptr) return *g_firstThreadsOwn;
    Credentials own;
    return ProcessCredentials(getpid(), own) ? own : ThreadCredentials();
}

bool ImpersonatedCredentials(Credentials& credentials) {
    if (t_client != nullptr) {
        credentials = *t_client;
        return true;
    }
    if (t_own == nullptr && IsFirstThread()) return false;
    Credentials now = ThreadCredentials();
    if (t_own == nullptr && now == OwnCredentials()) return false;
    credentials = std::move(now);
    return true;
}

void SpeakFor(std::unique_ptr<Credentials> client) {
    if (client != nullptr && !kEnd.Arm()) throw std::bad_alloc();
    delete std::exchange(t_client, client.release());
}

AsOwnProcess::AsOwnProcess() {
    if (!MayActForAnother() || !ImpersonatedCredentials(m_impersonated)) return;
    m_changed = TakeOn(OwnCredentials());
}

AsOwnProcess::~AsOwnProcess() {
    // Continuing with more rights than the caller took on would be worse than ending.
    if (m_changed && !TakeOn(m_impersonated)) std::abort();
}

DWORD ActAs(const Credentials& credentials) {
    WatchForFork();
    auto own = std::make_unique<Credentials>(OwnCredentials());
    const Credentials before = ThreadCredentials();
    // A thread that acts for one user switches to the next through its own user, who may.
    if (!TakeOn(*own)) return ERROR_PRIVILEGE_NOT_HELD;
    const bool first = t_own == nullptr;
    if (!kEnd.Arm()) return ERROR_NOT_ENOUGH_MEMORY;
    SetOwn(std::move(own)); // before the change, which other threads may see at once
    if (TakeOn(credentials)) return ERROR_SUCCESS;
    if (!TakeOn(before)) std::abort();
    if (first) SetOwn(nullptr);
    return ERROR_PRIVILEGE_NOT_HELD;
}

DWORD ActAsProcess() {
    SpeakFor(nullptr);
    Credentials impersonated;
    if (!ImpersonatedCredentials(impersonated)) return ERROR_SUCCESS;
    if (!TakeOn(OwnCredentials())) return ERROR_ACCESS_DENIED;
    SetOwn(nullptr);
    return ERROR_SUCCESS;
}

} // namespace oriel
