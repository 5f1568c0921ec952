// How the files of a store are opened and locked. No state.
#include "store/files.h"

#include "base/call.h"
#include "base/futex.h"
#include "base/lock.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace oriel {
namespace {

constexpr int kNoSurprise = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

bool IsTrustedOwner(uid_t owner) {
    return owner == geteuid() || owner == 0;
}

DWORD CheckStatus(const struct stat& file, const std::string& path) {
    if (!S_ISREG(file.st_mode) || file.st_nlink > 1) return ERROR_BADDB;
    if (IsTrustedOwner(file.st_uid)) return ERROR_SUCCESS;
    // The owner of the directory decides what is in it.
    struct stat directory {};
    if (stat(DirectoryOf(path).c_str(), &directory) != 0) return FileError(errno);
    return file.st_uid == directory.st_uid ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

} // namespace

DWORD FileError(int error) {
    if (error == ENOSPC || error == EDQUOT || error == EFBIG) return ERROR_DISK_FULL;
    if (error == EIO) return ERROR_REGISTRY_IO_FAILED;
    return error == ENOENT || error == ENOTDIR ? ERROR_FILE_NOT_FOUND : SystemError(error);
}

std::string DirectoryOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

DWORD CheckFile(const std::string& path) {
    struct stat file {};
    if (lstat(path.c_str(), &file) != 0) return FileError(errno);
    return CheckStatus(file, path);
}

DWORD OpenFile(const std::string& path, int flags, mode_t mode, Descriptor* file) {
    const int existing = flags & ~O_CREAT;
    *file = Descriptor(open(path.c_str(), existing | kNoSurprise));
    if (!file->IsOpen() && errno == ENOENT && (flags & O_CREAT) != 0) {
        *file = Descriptor(open(path.c_str(), flags | O_EXCL | kNoSurprise, mode));
        if (file->IsOpen()) return fchmod(file->Get(), mode) == 0 ? ERROR_SUCCESS : FileError(errno);
        // Somebody else made it in between.
        if (errno == EEXIST) *file = Descriptor(open(path.c_str(), existing | kNoSurprise));
    }
    // A link, a socket, a directory.
    if (!file->IsOpen()) return errno == ELOOP || errno == ENXIO || errno == EISDIR ? ERROR_BADDB : FileError(errno);
    struct stat status {};
    if (fstat(file->Get(), &status) != 0) return FileError(errno);
    return CheckStatus(status, path);
}

bool IsInPlace(const Descriptor& file, const std::string& path) {
    struct stat open {};
    struct stat there {};
    return fstat(file.Get(), &open) == 0 && lstat(path.c_str(), &there) == 0 && open.st_ino == there.st_ino &&
           open.st_dev == there.st_dev;
}

bool IsSafeDirectory(const std::string& path) {
    const Descriptor directory(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    return directory.IsOpen() && fstat(directory.Get(), &status) == 0 && IsTrustedOwner(status.st_uid) &&
           ((status.st_mode & 022) == 0 || (status.st_mode & S_ISVTX) != 0);
}

bool MakeSafeDirectory(const std::string& path, mode_t mode) {
    if (mkdir(path.c_str(), 0700) != 0) return errno == EEXIST && IsSafeDirectory(path);
    return chmod(path.c_str(), mode) == 0 && SyncDirectory(DirectoryOf(path));
}

bool SyncDirectory(const std::string& path) {
    const Descriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory.IsOpen() && fsync(directory.Get()) == 0;
}

DWORD WritersLock::Acquire(const std::string& path, int64_t deadline) {
    Pauses pauses;
    for (;;) {
        Descriptor file;
        // For writing, so that only those can open it who may write.
        const DWORD error = OpenFile(path, O_RDWR | O_CREAT, 0600, &file);
        if (error != ERROR_SUCCESS) return error;
        while (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK && errno != EINTR) return FileError(errno);
            if (deadline == 0 || !pauses.Pause(deadline)) return ERROR_BUSY;
        }
        // Another lock when the file was replaced.
        if (IsInPlace(file, path)) {
            m_file = std::move(file);
            return ERROR_SUCCESS;
        }
    }
}

void WritersLock::Release() {
    // Closing alone would leave it locked while a child process that has not yet executed its program has a copy.
    if (m_file.IsOpen()) flock(m_file.Get(), LOCK_UN);
    m_file.Close();
}

bool Pauses::Pause(int64_t deadline) {
    constexpr int64_t kLongest = 5 * kNsPerMs;
    if (TerminationAsked() || MonotonicNs() >= deadline) return false;
    const timespec pause{0, m_next};
    nanosleep(&pause, nullptr);
    m_next = std::min(2 * m_next, kLongest);
    return true;
}

} // namespace oriel
