// The files of named objects, from creation to removal, and the list of those that this process uses.
//
// State under one lock: the descriptor of the folder, what its file system does, and the list. Nothing else in this
// process opens or closes the file of an object. Lock order: this lock, the folder's flock, the lock of a mutex.
#include "kernel/named_object.h"

#include "base/call.h"
#include "base/descriptor.h"
#include "base/directories.h"
#include "base/lock.h"
#include "base/steps.h"
#include "base/timings.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <errhandlingapi.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oriel {
namespace {

constexpr uint32_t kMark = 0x316A624F; // "Obj1"
// For the folder's flock when an object is closed. Without it, a dead file remains, which does no harm.
constexpr int64_t kCloseTimeNs = 1000 * kNsPerMs;

constinit Lock g_namesLock;
int g_folder ORIEL_LOCK_CHECK(guarded_by(g_namesLock)) = -1;
bool g_mappingKeepsLock ORIEL_LOCK_CHECK(guarded_by(g_namesLock)) = false; // see MappingKeepsLock
NamedObject* g_named[512] ORIEL_LOCK_CHECK(guarded_by(g_namesLock));

size_t Bucket(const char* fileName) {
    uint32_t hash = 2166136261U; // FNV-1a
    for (; *fileName != '\0'; ++fileName)
        hash = (hash ^ static_cast<unsigned char>(*fileName)) * 16777619U;
    return hash % (sizeof g_named / sizeof g_named[0]);
}

// The file name of an object: without "Global\", and with %XX for bytes that a file name cannot have or that would hide
// it.
DWORD FileName(const char* name, char (&fileName)[kLongestFileName + 1]) {
    constexpr char kGlobal[] = "Global\\";
    if (std::strncmp(name, kGlobal, sizeof kGlobal - 1) == 0) name += sizeof kGlobal - 1;
    if (*name == '\0') return ERROR_INVALID_NAME;
    size_t length = 0;
    for (const char* next = name; *next != '\0'; ++next) {
        const auto byte = static_cast<unsigned char>(*next);
        if (byte == '\\') return ERROR_PATH_NOT_FOUND;
        const bool plain = byte >= 0x20 && byte != 0x7F && byte != '/' && byte != '%' && (byte != '.' || next != name);
        if (length + (plain ? 1 : 3) > kLongestFileName) return ERROR_FILENAME_EXCED_RANGE;
        if (plain) {
            fileName[length++] = *next;
            continue;
        }
        constexpr char kDigits[] = "0123456789ABCDEF";
        fileName[length++] = '%';
        fileName[length++] = kDigits[byte >> 4];
        fileName[length++] = kDigits[byte & 15];
    }
    fileName[length] = '\0';
    return ERROR_SUCCESS;
}

// -1 with the last error set.
int OpenFolder() {
    return WaitingCall<int>(-1, [] {
        const std::string folder = RuntimeFolder("objects");
        const int descriptor =
            folder.empty() ? -1 : open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (descriptor < 0) SetLastError(ERROR_PATH_NOT_FOUND);
        return descriptor;
    });
}

// Whether a flock outlives its descriptor while a mapping exists. On most file systems it does: the mapping holds the
// open file. A file system on top of another (overlayfs, so most containers) maps the lower file, and the lock ends
// with the descriptor. False when that cannot be found out: each object then keeps its descriptor, which works
// everywhere.
bool MappingKeepsLock(int folder) {
    Descriptor first(openat(folder, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (!first.IsOpen() || flock(first.Get(), LOCK_SH | LOCK_NB) != 0) return false;
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", first.Get());
    const Descriptor second(open(path, O_RDWR | O_CLOEXEC));
    void* mapping = mmap(nullptr, sizeof(ObjectHead), PROT_READ, MAP_SHARED, first.Get(), 0);
    if (mapping == MAP_FAILED) return false;
    first.Close();
    const bool kept = second.IsOpen() && flock(second.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    munmap(mapping, sizeof(ObjectHead));
    return kept;
}

// Holds the names lock and, on demand, the flock of the folder.
class ORIEL_LOCK_CHECK(scoped_lockable) NamesHold {
public:
    // Without a time limit: every wait under this lock has one.
    NamesHold() ORIEL_LOCK_CHECK(acquire_capability(g_namesLock)) { g_namesLock.Acquire(); }
    ~NamesHold() ORIEL_LOCK_CHECK(release_capability()) {
        if (m_guarded) flock(g_folder, LOCK_UN);
        g_namesLock.Release();
    }
    NamesHold(const NamesHold&) = delete;
    NamesHold& operator=(const NamesHold&) = delete;

    // Takes the folder's flock until the end of the hold. False with the last error set.
    bool Guard(int64_t timeNs) ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
        if (g_folder < 0) {
            g_folder = OpenFolder();
            if (g_folder < 0) return false;
            g_mappingKeepsLock = MappingKeepsLock(g_folder);
            WatchForFork();
        }
        const int64_t deadline = MonotonicNs() + timeNs;
        // flock() has no time limit; repeated attempts do.
        for (int64_t pause = kNsPerMs / 50;; pause = std::min(2 * pause, kNsPerMs)) {
            if (flock(g_folder, LOCK_EX | LOCK_NB) == 0) break;
            if (MonotonicNs() >= deadline || TerminationAsked()) return Fail(ERROR_TIMEOUT, false);
            const timespec time{0, static_cast<long>(pause)};
            nanosleep(&time, nullptr);
        }
        m_guarded = true;
        return true;
    }

private:
    TerminationHold m_hold;
    bool m_guarded = false;
};

void CloseFile(NamedObject& object) {
    munmap(object.head, sizeof(ObjectHead));
    object.head = &object.own;
    if (object.file >= 0) close(object.file);
    object.file = -1;
}

NamedObject** FindPlace(const char* fileName) ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    NamedObject** place = &g_named[Bucket(fileName)];
    while (*place != nullptr && std::strcmp((*place)->fileName, fileName) != 0)
        place = &(*place)->nextNamed;
    return place;
}

size_t FileSize(ObjectKind kind, uint32_t size) {
    return kind == ObjectKind::Section ? kSectionOffset + size : sizeof(ObjectHead);
}

constexpr int kOpenFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

int AccessOf(bool readOnly) {
    return readOnly ? O_RDONLY : O_RDWR;
}

bool IsEvent(ObjectKind kind) {
    return kind == ObjectKind::ManualEvent || kind == ObjectKind::AutoEvent;
}

// What everyone may do with a new file, its owner everything.
mode_t ModeFor(ForEveryone granted) {
    switch (granted) {
    case ForEveryone::All:
        return 0666;
    case ForEveryone::Read:
        return 0644;
    case ForEveryone::Nothing:
        break;
    }
    return 0600;
}

// Maps the head. Fork children do not inherit the mapping: it carries the flock, which keeps the object alive.
ObjectHead* MapHead(int fd, bool readOnly) {
    const int protection = readOnly ? PROT_READ : PROT_READ | PROT_WRITE;
    void* address = mmap(nullptr, sizeof(ObjectHead), protection, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) return nullptr;
    madvise(address, sizeof(ObjectHead), MADV_DONTFORK);
    return static_cast<ObjectHead*>(address);
}

// The functions from here to RemoveNameOfOwned run under the folder's flock.

// Removes the file if no process has the object.
void RemoveIfDead(const char* fileName) ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    const Descriptor file(openat(g_folder, fileName, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.IsOpen() && flock(file.Get(), LOCK_EX | LOCK_NB) == 0) unlinkat(g_folder, fileName, 0);
}

// Fills in a file that is new or belongs to no process. On failure its name is removed.
DWORD StartFile(const NamedRequest& request, NamedObject& object, int fd)
    ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    const auto size = static_cast<off_t>(FileSize(request.kind, request.size));
    // Allocates the space: without it, the first access to the mapping could raise SIGBUS.
    int error = ftruncate(fd, 0) == 0 ? posix_fallocate(fd, 0, size) : errno;
    if (error == 0 && flock(fd, LOCK_SH | LOCK_NB) != 0) error = errno;
    if (error == 0) {
        object.head = MapHead(fd, false);
        if (object.head == nullptr) error = errno;
    }
    if (error != 0) {
        unlinkat(g_folder, object.fileName, 0);
        return SystemError(error);
    }
    object.kind = request.kind;
    object.size = request.size;
    object.head->kind = request.kind;
    object.head->size = request.size;
    object.head->word.store(request.word, std::memory_order_relaxed);
    object.file = fd;
    if (request.atCreation != nullptr && !request.atCreation(&object)) {
        unlinkat(g_folder, object.fileName, 0);
        return GetLastError();
    }
    // Last, so that a file of a creator that died halfway does not count as an object.
    std::atomic_ref(object.head->mark).store(kMark, std::memory_order_release);
    return ERROR_SUCCESS;
}

// Joins the processes that have the object. Other users may have written the file, so everything is checked.
DWORD JoinFile(const NamedRequest& request, NamedObject& object, int fd, const struct stat& status) {
    ObjectHead head;
    if (pread(fd, static_cast<void*>(&head), sizeof head, 0) != static_cast<ssize_t>(sizeof head) || head.mark != kMark)
        return ERROR_INVALID_HANDLE;
    if (head.kind != request.kind && !(IsEvent(head.kind) && IsEvent(request.kind))) return ERROR_INVALID_HANDLE;
    if (head.kind == ObjectKind::Section && (head.size == 0 || head.size > kLargestSection))
        return ERROR_INVALID_HANDLE;
    if (static_cast<size_t>(status.st_size) != FileSize(head.kind, head.size)) return ERROR_INVALID_HANDLE;
    if (flock(fd, LOCK_SH | LOCK_NB) != 0) return ERROR_ACCESS_DENIED; // locked by a process that is not ours
    object.kind = head.kind;
    object.size = head.size;
    object.file = fd;
    object.head = MapHead(fd, request.readOnly);
    return object.head != nullptr ? ERROR_SUCCESS : SystemError(errno);
}

// Ends the opening of a file: keeps its descriptor, or closes it where the mapping of an event is enough, since a
// process may have thousands of events.
DWORD Settle(NamedObject& object, Descriptor& file, DWORD error) ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    if (error != ERROR_SUCCESS) {
        if (object.head != nullptr && object.head != &object.own) munmap(object.head, sizeof(ObjectHead));
        object.head = &object.own;
        object.file = -1;
    } else if (IsEvent(object.kind) && g_mappingKeepsLock) {
        object.file = -1;
    } else {
        file.Release();
    }
    return error;
}

DWORD OpenFile(const NamedRequest& request, NamedObject& object, bool& existed)
    ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    existed = false;
    // The second round follows the removal of a dead file.
    for (int round = 0; round < 2; ++round) {
        if (request.create) {
            Descriptor file(
                openat(g_folder, object.fileName, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
            if (file.IsOpen()) {
                fchmod(file.Get(), ModeFor(request.forEveryone)); // open() applies the umask
                return Settle(object, file, StartFile(request, object, file.Get()));
            }
            if (errno != EEXIST) return SystemError(errno);
        }
        Descriptor file(openat(g_folder, object.fileName, AccessOf(request.readOnly) | kOpenFlags));
        if (!file.IsOpen()) {
            if (errno == ENOENT && request.create) continue;
            return errno == ELOOP || errno == EISDIR || errno == ENXIO ? ERROR_INVALID_HANDLE : SystemError(errno);
        }
        struct stat status {};
        if (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1)
            return ERROR_INVALID_HANDLE;
        if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
            existed = true;
            return Settle(object, file, JoinFile(request, object, file.Get(), status));
        }
        // No process has it. A file of another user cannot be removed, but it can be used if everybody may write to it.
        const bool removed = unlinkat(g_folder, object.fileName, 0) == 0;
        if (!request.create) return ERROR_FILE_NOT_FOUND;
        if (removed) continue;
        if (request.forEveryone != ForEveryone::All || (status.st_mode & 0666) != 0666) return ERROR_ACCESS_DENIED;
        return Settle(object, file, StartFile(request, object, file.Get()));
    }
    return ERROR_ACCESS_DENIED;
}

// The last handle was closed while a thread of this process owns the mutex. If no other process has it, its name is
// removed now, as for a mutex without an owner; otherwise the mutex stays owned.
void RemoveNameOfOwned(NamedObject& object) ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    if (flock(object.file, LOCK_EX | LOCK_NB) == 0) {
        unlinkat(g_folder, object.fileName, 0);
        *FindPlace(object.fileName) = object.nextNamed;
        object.fileName[0] = '\0';
    } else {
        flock(object.file, LOCK_SH | LOCK_NB); // a failed upgrade has lost the shared lock
    }
}

NamedObject* MakeRecord(const NamedRequest& request) {
    NamedObject* object = request.make();
    if (object == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return object;
}

NamedObject* MakeUnnamed(const NamedRequest& request) {
    NamedObject* object = MakeRecord(request);
    if (object == nullptr) return nullptr;
    object->kind = request.kind;
    object->own.word.store(request.word, std::memory_order_relaxed);
    if (request.atCreation == nullptr || request.atCreation(object)) return object;
    DropReference(object);
    return nullptr;
}

// A reference of the object, or null with the last error set. existed: it was there before.
NamedObject* OpenNamed(const NamedRequest& request, bool& existed) {
    existed = false;
    if (request.name == nullptr || *request.name == '\0')
        return request.create ? MakeUnnamed(request) : Fail<NamedObject*>(ERROR_INVALID_PARAMETER);
    char fileName[kLongestFileName + 1];
    DWORD error = FileName(request.name, fileName);
    if (error != ERROR_SUCCESS) return Fail(error, nullptr);

    NamesHold names;
    // One record for each object of the process: its handles share a mapping and a flock.
    if (NamedObject* known = *FindPlace(fileName)) {
        if (known->type != request.type) return Fail(ERROR_INVALID_HANDLE, nullptr);
        if (known->readOnly && !request.readOnly) return Fail(ERROR_ACCESS_DENIED, nullptr);
        known->references.fetch_add(1, std::memory_order_relaxed);
        existed = true;
        return known;
    }
    if (!names.Guard(g_timings.namesLock * kNsPerMs)) return nullptr;
    NamedObject* object = MakeRecord(request);
    if (object == nullptr) return nullptr;
    std::memcpy(object->fileName, fileName, sizeof fileName);
    object->readOnly = request.readOnly;
    error = OpenFile(request, *object, existed);
    if (error != ERROR_SUCCESS) {
        DropReference(object);
        return Fail(error, nullptr);
    }
    object->named = true;
    *FindPlace(fileName) = object;
    return object;
}

} // namespace

bool DropNamed(NamedObject* object) {
    if (!object->named) return LastReference(object);
    // No lock while more than two references remain. The last two need it: one of them may be the owner's.
    uint32_t count = object->references.load(std::memory_order_relaxed);
    while (count > 2)
        if (object->references.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) return false;

    NamesHold names;
    const uint32_t left = object->references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    const bool inList = object->fileName[0] != '\0';
    if (left == 1 && object->owned.load(std::memory_order_relaxed) && inList && names.Guard(kCloseTimeNs))
        RemoveNameOfOwned(*object);
    if (left != 0) return false;
    if (inList) *FindPlace(object->fileName) = object->nextNamed;
    const bool guarded = inList && names.Guard(kCloseTimeNs);
    CloseFile(*object);
    // After the file was closed: this process's own flock no longer keeps the object alive.
    if (guarded) RemoveIfDead(object->fileName);
    return true;
}

bool AttributesAreSupported(const SECURITY_ATTRIBUTES* attributes) {
    if (attributes == nullptr || !attributes->bInheritHandle) return true;
    return Fail(ERROR_NOT_SUPPORTED, false);
}

HANDLE CreateByName(NamedRequest request, const SECURITY_ATTRIBUTES* attributes) {
    const TerminationHold hold;
    if (!AttributesAreSupported(attributes)) return nullptr;
    request.create = true;
    request.forEveryone = GrantedToEveryone(attributes);
    bool existed = false;
    NamedObject* object = OpenNamed(request, existed);
    if (object == nullptr) return nullptr;
    const HANDLE handle = NewHandle(object, kAllRights);
    if (handle != nullptr) SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

HANDLE OpenByName(const NamedRequest& request, DWORD desired, BOOL inherit, const RightsMap& map) {
    const TerminationHold hold;
    if (inherit) return Fail(ERROR_NOT_SUPPORTED, nullptr);
    bool existed = false;
    NamedObject* object = OpenNamed(request, existed);
    if (object == nullptr) return nullptr;
    DWORD rights = 0;
    if (desired == 0 || !MapRights(desired, map, &rights)) {
        DropReference(object);
        return Fail(ERROR_ACCESS_DENIED, nullptr);
    }
    if ((desired & MAXIMUM_ALLOWED) != 0) rights |= map.all;
    return NewHandle(object, rights);
}

int ReopenFile(const NamedObject& object) {
    NamesHold names;
    if (object.fileName[0] == '\0') return -1;
    Descriptor file(openat(g_folder, object.fileName, AccessOf(object.readOnly) | kOpenFlags));
    struct stat mine {};
    struct stat found {};
    if (!file.IsOpen() || fstat(object.file, &mine) != 0 || fstat(file.Get(), &found) != 0 ||
        mine.st_ino != found.st_ino || mine.st_dev != found.st_dev)
        return -1;
    return file.Release();
}

namespace {

// For a process that ends without closing its handles: removes the names of its objects too. Other threads may still
// run, so no mapping may disappear.
__attribute__((destructor)) void LeaveNames() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    constexpr int64_t kTimeNs = 200 * kNsPerMs;
    if (!g_namesLock.AcquireUntil(MonotonicNs() + kTimeNs)) return;
    g_namesLock.Release();
    NamesHold names;
    if (g_folder < 0 || !names.Guard(kTimeNs)) return;
    for (NamedObject* object : g_named) {
        for (; object != nullptr; object = object->nextNamed) {
            if (object->file >= 0) {
                if (flock(object->file, LOCK_EX | LOCK_NB) == 0) unlinkat(g_folder, object->fileName, 0);
                continue;
            }
            // Replaces the page by a private copy in one step; the flock ends with the old mapping.
            void* copy = mmap(nullptr, sizeof(ObjectHead), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (copy == MAP_FAILED) continue;
            std::memcpy(copy, static_cast<const void*>(object->head), sizeof(ObjectHead));
            mremap(copy, sizeof(ObjectHead), sizeof(ObjectHead), MREMAP_MAYMOVE | MREMAP_FIXED, object->head);
            RemoveIfDead(object->fileName);
        }
    }
}

// The child has none of its parent's objects: it did not inherit the mappings, and the descriptors are closed here.
void ForgetNames() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_namesLock.ForgetOwner();
    if (g_folder >= 0) close(g_folder); // without unlocking: the flock belongs to the parent
    g_folder = -1;
    for (NamedObject*& first : g_named) {
        for (NamedObject* object = first; object != nullptr; object = object->nextNamed)
            if (object->file >= 0) close(object->file);
        first = nullptr;
    }
}

} // namespace

const ForkSteps kNamesFork{TakeForFork<g_namesLock>, ReleaseAfterFork<g_namesLock>, ForgetNames};

} // namespace oriel
