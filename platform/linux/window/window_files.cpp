// The files of windows: creating, checking, listing and removing them. Files of other processes are hostile input:
// type, owner, mode, links, size, magic and termination of texts are checked.
#include "window/window_files.h"

#include "base/call.h"
#include "base/directories.h"
#include "base/litter.h"
#include "base/lock.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <errhandlingapi.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/random.h>
#include <sys/stat.h>
#include <winerror.h>

namespace oriel {
namespace {

constexpr mode_t kFifoMode = 0622;
constexpr mode_t kRecordMode = 0644;
constexpr DWORD kLowestHandle = 0x10000;
constexpr DWORD kHandleMask = 0x7fffffff;
// A random name is taken once in millions of times, unless somebody plants files; then creating fails.
constexpr int kNameTries = 16;
// Unfinished files of a process that died while creating them. That takes microseconds; who was stopped meanwhile gets
// an error.
constexpr time_t kUnfinishedSeconds = 4;

constexpr std::string_view kUnfinishedPrefix = ".new-";
constexpr const char* kQueueSuffix = ".queue";
constexpr const char* kReplySuffix = ".reply";
constexpr const char* kRecordSuffix = ".window";

struct FileName {
    char text[24];
};

FileName NameOf(DWORD handle, const char* suffix) {
    FileName name;
    std::snprintf(name.text, sizeof name.text, "%08x%s", handle, suffix);
    return name;
}

const char* SuffixOf(Fifo kind) {
    return kind == Fifo::Queue ? kQueueSuffix : kReplySuffix;
}

DWORD RandomHandle() {
    DWORD handle = 0;
    while (handle < kLowestHandle) {
        // A few bytes always come whole, and without blocking once the machine has started.
        if (getrandom(&handle, sizeof handle, 0) != sizeof handle) handle = 0;
        handle &= kHandleMask;
    }
    return handle;
}

FileName UnfinishedName() {
    FileName name;
    std::snprintf(name.text, sizeof name.text, "%s%08x", kUnfinishedPrefix.data(), RandomHandle());
    return name;
}

void SetErrorFromErrno() {
    SetLastError(SystemError(errno));
}

// Cannot be opened: out of descriptors or memory, or there is no such window.
void SetErrorOfNoWindow() {
    if (errno == EMFILE || errno == ENFILE || errno == ENOMEM) return SetErrorFromErrno();
    SetLastError(ERROR_INVALID_WINDOW_HANDLE);
}

Descriptor OpenFolder() {
    // The folder is created once and looked up by path each time, so that a recreated run directory is found. The path
    // is never freed: windows are removed while static objects are destroyed.
    static const std::string& path = *new std::string(RuntimeFolder("windows"));
    constexpr int kFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    Descriptor folder(open(path.c_str(), kFlags));
    if (!folder.IsOpen() && errno == ENOENT) folder = Descriptor(open(RuntimeFolder("windows").c_str(), kFlags));
    return folder;
}

enum class Life { Living, Dead, Unknown };

// Opens a FIFO for posting. Dead: missing, or without a reader. Unknown: cannot be determined, such as out of
// descriptors, or a foreign file.
Life OpenFifoIn(const Descriptor& folder, const char* name, Descriptor& fifo) {
    if (!folder.IsOpen()) return Life::Unknown;
    Descriptor opened(openat(folder.Get(), name, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!opened.IsOpen()) return errno == ENXIO || errno == ENOENT ? Life::Dead : Life::Unknown;
    struct stat status;
    if (fstat(opened.Get(), &status) != 0 || !S_ISFIFO(status.st_mode) || status.st_nlink != 1 ||
        (status.st_mode & 07777) != kFifoMode) {
        errno = 0;
        return Life::Unknown;
    }
    fifo = std::move(opened);
    return Life::Living;
}

bool IsTerminated(const char* text, size_t size, size_t longest) {
    return strnlen(text, size) <= longest;
}

bool ReadRecordIn(const Descriptor& folder, DWORD handle, WindowRecord& record, uid_t& owner) {
    const Descriptor file(
        openat(folder.Get(), NameOf(handle, kRecordSuffix).text, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1 ||
        status.st_size != sizeof record)
        return false;
    WindowRecord read;
    if (pread(file.Get(), &read, sizeof read, 0) != sizeof read) return false;
    if (read.magic != kWindowRecordMagic || read.version != kWindowRecordVersion || read.handle != handle) return false;
    if (read.className[0] == '\0' || !IsTerminated(read.className, sizeof read.className, ORIEL_MAX_CLASS_NAME) ||
        !IsTerminated(read.title, sizeof read.title, ORIEL_MAX_WINDOW_TEXT))
        return false;
    record = read;
    owner = status.st_uid;
    return true;
}

// A record counts only with a live FIFO of the same user, so that nobody can describe another user's window.
Life ReadWindowIn(const Descriptor& folder, DWORD handle, WindowRecord& record) {
    Descriptor fifo;
    const Life life = OpenFifoIn(folder, NameOf(handle, kQueueSuffix).text, fifo);
    if (life != Life::Living) return life;
    struct stat status;
    uid_t owner = 0;
    errno = 0; // a wrong file leaves it 0
    if (fstat(fifo.Get(), &status) == 0 && ReadRecordIn(folder, handle, record, owner) && owner == status.st_uid)
        return Life::Living;
    return Life::Unknown;
}

// The handle of "5f3a09c1.window" with that suffix; 0 for other names.
DWORD HandleInName(const char* name, const char* suffix) {
    char* end = nullptr;
    const unsigned long handle = std::strtoul(name, &end, 16);
    if (end != name + 8 || handle > kHandleMask || NameOf(handle, suffix).text != std::string_view(name)) return 0;
    return static_cast<DWORD>(handle);
}

// Whether a file under the name of one of ours cannot be ours, which gets its name when it is complete.
bool IsForeign(const Descriptor& folder, const char* name, bool isRecord) {
    struct stat status;
    if (fstatat(folder.Get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
    return isRecord ? !S_ISREG(status.st_mode) || status.st_size != sizeof(WindowRecord)
                    : !S_ISFIFO(status.st_mode) || (status.st_mode & 07777) != kFifoMode;
}

void SweepFifo(const Descriptor& folder, const char* name) {
    Descriptor fifo;
    if (IsForeign(folder, name, false)) return RemoveLitter(folder.Get(), name);
    if (OpenFifoIn(folder, name, fifo) == Life::Dead) unlinkat(folder.Get(), name, 0);
}

void SweepUnfinished(const Descriptor& folder, const char* name) {
    struct stat status;
    if (fstatat(folder.Get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    const bool isOurs = std::string_view(name).starts_with(kUnfinishedPrefix);
    if (isOurs && time(nullptr) - status.st_ctime <= kUnfinishedSeconds) return;
    RemoveLitter(folder.Get(), name);
}

} // namespace

bool IsWindowNumber(HWND window) {
    const auto value = reinterpret_cast<ULONG_PTR>(window);
    return value >= kLowestHandle && value <= kHandleMask;
}

Descriptor CreateFifo(Fifo kind, DWORD& handle) {
    const Descriptor folder = OpenFolder();
    errno = folder.IsOpen() ? EEXIST : errno;
    for (int tries = 0; errno == EEXIST && tries < kNameTries; ++tries) {
        const FileName unfinished = UnfinishedName();
        if (mkfifoat(folder.Get(), unfinished.text, 0600) != 0) continue;
        Descriptor fifo(openat(folder.Get(), unfinished.text, O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        const DWORD candidate = RandomHandle();
        // The mode is set separately, because the umask applies to creation.
        if (fifo.IsOpen() && fchmod(fifo.Get(), kFifoMode) == 0 &&
            renameat2(folder.Get(), unfinished.text, folder.Get(), NameOf(candidate, SuffixOf(kind)).text,
                      RENAME_NOREPLACE) == 0) {
            handle = candidate;
            return fifo;
        }
        const int error = errno;
        unlinkat(folder.Get(), unfinished.text, 0);
        errno = error;
    }
    SetErrorFromErrno();
    return {};
}

void RemoveFifo(Fifo kind, DWORD handle) {
    const Descriptor folder = OpenFolder();
    unlinkat(folder.Get(), NameOf(handle, SuffixOf(kind)).text, 0);
}

Descriptor OpenFifo(Fifo kind, DWORD handle) {
    Descriptor fifo;
    if (OpenFifoIn(OpenFolder(), NameOf(handle, SuffixOf(kind)).text, fifo) != Life::Living) SetErrorOfNoWindow();
    return fifo;
}

bool PublishWindow(const WindowRecord& record) {
    const Descriptor folder = OpenFolder();
    const FileName unfinished = UnfinishedName();
    const Descriptor file(
        openat(folder.Get(), unfinished.text, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.IsOpen()) {
        SetErrorFromErrno();
        return false;
    }
    errno = ENOSPC;
    if (write(file.Get(), &record, sizeof record) == sizeof record && fchmod(file.Get(), kRecordMode) == 0 &&
        renameat2(folder.Get(), unfinished.text, folder.Get(), NameOf(record.handle, kRecordSuffix).text,
                  RENAME_NOREPLACE) == 0)
        return true;
    SetErrorFromErrno();
    unlinkat(folder.Get(), unfinished.text, 0);
    return false;
}

void RemoveWindow(DWORD handle) {
    const Descriptor folder = OpenFolder();
    unlinkat(folder.Get(), NameOf(handle, kRecordSuffix).text, 0);
    unlinkat(folder.Get(), NameOf(handle, kQueueSuffix).text, 0);
}

bool ReadWindow(DWORD handle, WindowRecord& record) {
    if (ReadWindowIn(OpenFolder(), handle, record) == Life::Living) return true;
    SetErrorOfNoWindow();
    return false;
}

void VisitWindows(const std::function<void(const WindowRecord&)>& visit) {
    const TerminationHold untilDone;
    const Descriptor folder = OpenFolder();
    Descriptor listing(openat(folder.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(fdopendir(listing.Get()), closedir);
    if (directory == nullptr) return;
    listing.Release();
    while (const dirent* entry = readdir(directory.get())) {
        const char* name = entry->d_name;
        if (const DWORD handle = HandleInName(name, kRecordSuffix)) {
            WindowRecord record;
            const Life life = ReadWindowIn(folder, handle, record);
            if (life == Life::Living) visit(record);
            if (life == Life::Dead || (life == Life::Unknown && IsForeign(folder, name, true)))
                RemoveLitter(folder.Get(), name);
        } else if (HandleInName(name, kQueueSuffix) != 0 || HandleInName(name, kReplySuffix) != 0) {
            SweepFifo(folder, name);
        } else if (std::string_view(name) != "." && std::string_view(name) != "..") {
            // Unfinished, or nothing of ours: what others may put into the folder would stay for good.
            SweepUnfinished(folder, name);
        }
    }
}

} // namespace oriel
