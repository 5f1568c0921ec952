// Records of services. State: the files.
//
// POSIX record locks fit: they belong to the process, not to descriptors that children inherit, and the system names
// the holder. Their drawback is that closing any descriptor of the file drops them, so the process that runs a service
// never opens its own record again (OwnStatus).
#include "service/record.h"

#include "base/call.h"
#include "base/directories.h"
#include "base/futex.h"
#include "text/names.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace oriel {
namespace {

constexpr char kMagic[8] = {'O', 'r', 'S', 'v', 'c', 'S', 't', '1'};
constexpr size_t kLongestServiceName = 80;

// The file: 56 bytes in the byte order of the machine.
struct Record {
    char magic[8];
    uint32_t process;
    SERVICE_STATUS status;
    uint64_t unused;
    uint64_t sum; // checksum of everything before
};
static_assert(sizeof(Record) == 56 && offsetof(Record, status) == 12 && offsetof(Record, sum) == 48);

uint64_t CheckSum(const Record& record) {
    uint64_t sum = 0xcbf29ce484222325;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    for (size_t at = 0; at < offsetof(Record, sum); ++at)
        sum = (sum ^ bytes[at]) * 0x100000001b3;
    return sum;
}

bool IsSound(const Record& record) {
    const DWORD state = record.status.dwCurrentState;
    return std::memcmp(record.magic, kMagic, sizeof kMagic) == 0 && record.sum == CheckSum(record) &&
           state >= SERVICE_STOPPED && state <= SERVICE_RUNNING;
}

std::string RecordPath(const std::string& folded) {
    const std::string folder = RuntimeFolder("services");
    return folder.empty() ? folder : folder + "/" + folded + ".status";
}

bool IsTrusted(const std::string& path, const struct stat& file) {
    if (!S_ISREG(file.st_mode) || (file.st_mode & (S_IWGRP | S_IWOTH)) != 0) return false;
    if (file.st_uid == 0 || file.st_uid == geteuid()) return true;
    struct stat folder {};
    return stat(path.substr(0, path.rfind('/')).c_str(), &folder) == 0 && file.st_uid == folder.st_uid;
}

struct flock WholeFile(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

// The holder of the service's lock: its process, 0 for one that is not visible, -1 for nobody. Read locks do not count.
pid_t LockHolder(int file) {
    struct flock lock = WholeFile(F_RDLCK);
    if (fcntl(file, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return -1;
    return lock.l_pid;
}

// A read may hit a record between two states while it is written.
bool ReadRecord(int file, Record* record) {
    constexpr int kTries = 50;
    for (int tries = 0; tries < kTries; ++tries) {
        if (pread(file, record, sizeof *record, 0) == ssize_t{sizeof *record} && IsSound(*record)) return true;
        if (LockHolder(file) < 0) return false; // nobody is writing
        const timespec pause{0, 1000000};
        nanosleep(&pause, nullptr);
    }
    return false;
}

bool IsStillThere(const std::string& path, const struct stat& file) {
    struct stat there {};
    return lstat(path.c_str(), &there) == 0 && there.st_dev == file.st_dev && there.st_ino == file.st_ino;
}

// Removes the file, where this user may.
bool TakeAway(const std::string& path) {
    if (unlink(path.c_str()) == 0 || errno == ENOENT) return true;
    if (errno != EISDIR && errno != EPERM) return false;
    // A directory, which may contain anything, is renamed.
    const std::string aside = path + "." + std::to_string(getpid()) + "." + std::to_string(MonotonicNs());
    return rename(path.c_str(), aside.c_str()) == 0;
}

SERVICE_STATUS Stopped(DWORD exitCode) {
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = SERVICE_STOPPED;
    status.dwWin32ExitCode = exitCode;
    return status;
}

// One look. False when the record was replaced or taken into use meanwhile.
bool LookOnce(const std::string& path, const Descriptor& file, const struct stat& before, ServiceState* state) {
    const pid_t holder = LockHolder(file.Get());
    Record record;
    // A record of another process was left by a killed one: the holder has not written yet.
    const bool sound =
        ReadRecord(file.Get(), &record) && (holder <= 0 || record.process == static_cast<uint32_t>(holder));
    if (holder < 0 && (LockHolder(file.Get()) >= 0 || !IsStillThere(path, before))) return false;
    state->known = true;
    state->running = holder >= 0;
    state->process = holder >= 0 ? holder : 0;
    state->lastProcess = sound ? record.process : 0;
    if (sound) state->status = record.status;
    if (holder >= 0 && !sound) {
        // It has the lock, and is about to write for the first time.
        state->status = Stopped(NO_ERROR);
        state->status.dwCurrentState = SERVICE_START_PENDING;
    }
    if (holder < 0 && (!sound || record.status.dwCurrentState != SERVICE_STOPPED))
        state->status = Stopped(ERROR_PROCESS_ABORTED);
    return true;
}

// The state of a service that this process does not run.
DWORD ReadOthersState(const std::string& path, ServiceState* state) {
    state->status = Stopped(ERROR_SERVICE_NEVER_STARTED);
    if (path.empty()) return ERROR_PATH_NOT_FOUND;
    // Bounded: a service may start and stop all the time.
    constexpr int kLooks = 20;
    for (int looks = 0; looks < kLooks; ++looks) {
        // A pipe in this place must not block us.
        const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!file.IsOpen()) return errno == EMFILE || errno == ENFILE ? SystemError(errno) : DWORD{ERROR_SUCCESS};
        struct stat status {};
        if (fstat(file.Get(), &status) != 0 || !IsTrusted(path, status)) return ERROR_SUCCESS;
        if (LookOnce(path, file, status, state)) return ERROR_SUCCESS;
    }
    return ERROR_BUSY;
}

} // namespace

std::string FoldServiceName(const char* name) {
    const std::string_view text = name != nullptr ? name : "";
    if (text.empty() || text.size() > kLongestServiceName) return {};
    for (const char c : text)
        if (c == '/' || c == '\\' || static_cast<unsigned char>(c) < ' ') return {};
    return FoldName(text);
}

DWORD ReadServiceState(const std::string& folded, ServiceState* state) {
    *state = {};
    if (!OwnStatus(folded, &state->status)) return ReadOthersState(RecordPath(folded), state);
    state->known = true;
    state->running = state->status.dwCurrentState != SERVICE_STOPPED;
    state->process = getpid();
    state->lastProcess = static_cast<DWORD>(getpid());
    return ERROR_SUCCESS;
}

DWORD OwnRecord::TryAcquire(const std::string& path, bool* again) {
    *again = false;
    Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    struct stat status {};
    if (file.IsOpen() && fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
        (status.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
        struct flock lock = WholeFile(F_WRLCK);
        if (fcntl(file.Get(), F_SETLK, &lock) == 0) {
            *again = !IsStillThere(path, status);
            if (*again) return ERROR_BUSY;
            if (fchmod(file.Get(), 0644) != 0) return SystemError(errno);
            m_file = std::move(file);
            return ERROR_SUCCESS;
        }
        if (errno != EACCES && errno != EAGAIN) return SystemError(errno);
        if (LockHolder(file.Get()) >= 0) return ERROR_SERVICE_ALREADY_RUNNING;
        // Only readers are in the way; they can lock what they can read, and may keep that file.
    }
    // The file in this place is not ours, or another user's service may be running.
    ServiceState other;
    if (file.IsOpen() || errno != ENOENT) {
        file.Close();
        if (ReadOthersState(path, &other) == ERROR_SUCCESS && other.running) return ERROR_SERVICE_ALREADY_RUNNING;
    }
    *again = TakeAway(path);
    return ERROR_ACCESS_DENIED;
}

DWORD OwnRecord::Acquire(const std::string& folded, const SERVICE_STATUS& status) {
    const std::string path = RecordPath(folded);
    if (path.empty()) return ERROR_PATH_NOT_FOUND;
    m_folded = folded;
    // Each retry means that somebody removed the file or put another there.
    constexpr int kTries = 20;
    DWORD error = ERROR_BUSY;
    bool again = true;
    for (int tries = 0; again && tries < kTries; ++tries)
        error = TryAcquire(path, &again);
    if (error != ERROR_SUCCESS) return error;
    m_process = getpid();
    return Tell(status);
}

DWORD OwnRecord::Tell(const SERVICE_STATUS& status) {
    Record record = {};
    std::memcpy(record.magic, kMagic, sizeof kMagic);
    record.process = static_cast<uint32_t>(m_process);
    record.status = status;
    record.sum = CheckSum(record);
    m_status = status;
    if (pwrite(m_file.Get(), &record, sizeof record, 0) != ssize_t{sizeof record}) return SystemError(errno);
    return ERROR_SUCCESS;
}

void OwnRecord::Release() {
    m_file.Close();
    m_process = 0;
}

bool OwnRecord::Holds(const std::string& folded, SERVICE_STATUS* status) const {
    if (!m_file.IsOpen() || m_process != getpid() || m_folded != folded) return false;
    *status = m_status;
    return true;
}

} // namespace oriel
