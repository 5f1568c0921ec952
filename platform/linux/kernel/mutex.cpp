// Mutexes.
//
// A named mutex is owned by the process that has its file locked (an open-file-description lock, which the system drops
// with the process, kill -9 included), and in it by the thread that the record names. The file's owner word is not 0
// while the mutex is owned: whoever gets the lock and finds it so has got it from an owner that died.
//
// The bell is a word to sleep on. Its lowest bit says that somebody may be asleep; a release that finds it rings, and
// only then costs a call beyond the unlocking. Nobody rings for a process that was killed, so that every sleep is
// short.
//
// Lock order: the names lock (named_object.cpp), then a mutex's own lock.
#include "base/call.h"
#include "base/lock.h"
#include "base/timings.h"
#include "kernel/named_object.h"
#include "kernel/thread.h"

#include "security/records.h"

#include <cerrno>
#include <errhandlingapi.h>
#include <fcntl.h>
#include <new>
#include <synchapi.h>

namespace oriel {

struct MutexObject : NamedObject {
    Lock lock;
    ThreadObject* owner ORIEL_LOCK_CHECK(guarded_by(lock)) = nullptr; // while owned, it holds one of the references
    uint32_t depth ORIEL_LOCK_CHECK(guarded_by(lock)) = 0;
    MutexObject* next = nullptr; // the owner's list
    MutexObject* previous = nullptr;
};

namespace {

constexpr uint32_t kSomebodySleeps = 1;
constexpr uint32_t kDeepest = 0x7FFFFFFF;

void DropMutex(Object* object) {
    auto* mutex = static_cast<MutexObject*>(object);
    if (DropNamed(mutex)) delete mutex;
}

// Locks or unlocks the file. False, with errno's value, when it is locked by another process.
bool LockFile(int file, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_len = 1;
    return fcntl(file, F_OFD_SETLK, &lock) == 0;
}

Grab TryMutex(MutexObject& mutex, ThreadObject& thread) {
    LockHold hold(mutex.lock);
    if (mutex.owner == &thread) {
        if (mutex.depth == kDeepest) return Grab::LimitReached;
        ++mutex.depth;
        return Grab::Got;
    }
    if (mutex.owner != nullptr) return Grab::Busy;
    if (mutex.file >= 0 && !LockFile(mutex.file, F_WRLCK))
        return errno == EAGAIN || errno == EACCES ? Grab::Busy : Grab::Failed;
    mutex.references.fetch_add(1, std::memory_order_relaxed);
    mutex.owned.store(true, std::memory_order_relaxed);
    mutex.owner = &thread;
    mutex.depth = 1;
    mutex.previous = nullptr;
    mutex.next = thread.mutexes;
    if (mutex.next != nullptr) mutex.next->previous = &mutex;
    thread.mutexes = &mutex;
    return mutex.head->owner.exchange(1, std::memory_order_relaxed) == 0 ? Grab::Got : Grab::Abandoned;
}

// Ends the ownership. The reference that came with it is left to the caller.
void GiveUp(MutexObject& mutex, bool abandon) ORIEL_LOCK_CHECK(requires_capability(mutex.lock)) {
    if (mutex.next != nullptr) mutex.next->previous = mutex.previous;
    if (mutex.previous != nullptr)
        mutex.previous->next = mutex.next;
    else
        mutex.owner->mutexes = mutex.next;
    mutex.owner = nullptr;
    mutex.depth = 0;
    mutex.owned.store(false, std::memory_order_relaxed);
    if (!abandon) mutex.head->owner.store(0, std::memory_order_relaxed);
    if (mutex.file >= 0) LockFile(mutex.file, F_UNLCK);
}

void Ring(MutexObject& mutex) {
    // A change by nothing: either it sees the sleeper's bit, or the sleeper, whose change comes later, sees the
    // release.
    if ((mutex.head->word.fetch_add(0, std::memory_order_acq_rel) & kSomebodySleeps) != 0)
        AddAndWakeAll(mutex.head->word, 1, mutex.named);
}

Grab GrabMutex(Object* object, WaitPoint& point, bool goingToSleep) {
    auto& mutex = *static_cast<MutexObject*>(object);
    ThreadObject* thread = CurrentThread();
    if (thread == nullptr) return Grab::Failed;
    Grab result = TryMutex(mutex, *thread);
    if (result != Grab::Busy || !goingToSleep) return result;
    // Ask to be woken, and only then believe that it is busy.
    point.word = &mutex.head->word;
    point.value = point.word->fetch_or(kSomebodySleeps, std::memory_order_acq_rel) | kSomebodySleeps;
    point.shared = mutex.named;
    point.sliceMs = mutex.named ? g_timings.mutexSlice : 0;
    return TryMutex(mutex, *thread);
}

constexpr ObjectType kMutexType{.name = "mutex", .drop = DropMutex, .grab = GrabMutex};

constexpr RightsMap kMutexRights{.read = STANDARD_RIGHTS_READ | MUTANT_QUERY_STATE,
                                 .write = STANDARD_RIGHTS_WRITE,
                                 .execute = READ_CONTROL | SYNCHRONIZE,
                                 .all = MUTEX_ALL_ACCESS};

NamedObject* MakeMutex() {
    return new (std::nothrow) MutexObject{{{&kMutexType}}};
}

bool OwnAtCreation(NamedObject* object) {
    ThreadObject* thread = CurrentThread();
    if (thread != nullptr && TryMutex(*static_cast<MutexObject*>(object), *thread) == Grab::Got) return true;
    return Fail(ERROR_NO_SYSTEM_RESOURCES, false);
}

} // namespace

void AbandonMutexes(ThreadObject& thread) {
    while (MutexObject* mutex = thread.mutexes) {
        {
            LockHold hold(mutex->lock);
            GiveUp(*mutex, true);
        }
        Ring(*mutex);
        DropReference(mutex);
    }
}

} // namespace oriel

using namespace oriel;

HANDLE WINAPI CreateMutexA(LPSECURITY_ATTRIBUTES attributes, BOOL initialOwner, LPCSTR name) {
    TerminationHold hold;
    if (!AttributesAreSupported(attributes)) return nullptr;
    bool existed = false;
    NamedObject* mutex = OpenNamed({.type = &kMutexType,
                                    .kind = ObjectKind::Mutex,
                                    .name = name,
                                    .create = true,
                                    .forEveryone = GrantsEveryone(attributes),
                                    .make = MakeMutex,
                                    .atCreation = initialOwner ? OwnAtCreation : nullptr},
                                   existed);
    return HandleOfCreated(mutex, existed);
}

HANDLE WINAPI OpenMutexA(DWORD access, BOOL inherit, LPCSTR name) {
    TerminationHold hold;
    if (inherit) return Fail(ERROR_NOT_SUPPORTED, nullptr);
    bool existed = false;
    NamedObject* mutex =
        OpenNamed({.type = &kMutexType, .kind = ObjectKind::Mutex, .name = name, .make = MakeMutex}, existed);
    return HandleWithRights(mutex, access, kMutexRights);
}

BOOL WINAPI ReleaseMutex(HANDLE handle) {
    HandleUse<MutexObject> use(handle, kMutexType, 0);
    if (!use) return FALSE;
    MutexObject& mutex = *use.Get();
    ThreadObject* thread = CurrentThread();
    {
        LockHold hold(mutex.lock);
        if (thread == nullptr || mutex.owner != thread) return Fail(ERROR_NOT_OWNER);
        if (--mutex.depth != 0) return TRUE;
        GiveUp(mutex, false);
    }
    Ring(mutex);
    mutex.references.fetch_sub(1, std::memory_order_acq_rel); // not the last: the handle has one
    return TRUE;
}
