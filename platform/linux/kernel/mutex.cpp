// Mutexes: CreateMutexA, OpenMutexA, ReleaseMutex, and what happens to mutexes whose owner ends.
//
// The owner of a named mutex is the process that holds an open-file-description lock on its memory, and in it the
// thread that the record names. The kernel releases the lock with the process, kill -9 included. The owner word in the
// memory is not 0 while the mutex is owned: a process that gets the lock and finds the word set got the mutex from an
// owner that died (WAIT_ABANDONED).
//
// Waiters sleep on a futex word next to it. Its lowest bit says that somebody may be asleep; only a release that finds
// the bit makes a wake-up call. Nobody wakes the waiters of a killed process, so each sleep is short
// (Timings.mutexLook).
//
// State: the records; each thread has a list of those it owns. Lock order: the names lock (named_object.cpp), then the
// lock of a mutex.
#include "base/call.h"
#include "base/lock.h"
#include "base/timings.h"
#include "kernel/named_object.h"
#include "kernel/thread.h"

#include <cerrno>
#include <errhandlingapi.h>
#include <fcntl.h>
#include <new>
#include <synchapi.h>

namespace oriel {

struct MutexObject : NamedObject {
    Lock lock;
    ThreadObject* owner ORIEL_LOCK_CHECK(guarded_by(lock)) = nullptr; // holds a reference while it owns the mutex
    uint32_t depth ORIEL_LOCK_CHECK(guarded_by(lock)) = 0;
    MutexObject* next = nullptr; // in the owner's list
    MutexObject* previous = nullptr;
};

namespace {

constexpr uint32_t kSomebodySleeps = 1;
constexpr uint32_t kDeepest = 0x7FFFFFFF;

void DropMutex(Object* object) {
    auto* mutex = static_cast<MutexObject*>(object);
    if (DropNamed(mutex)) delete mutex;
}

// Locks or unlocks the file. False with errno: EAGAIN or EACCES when another process holds the lock.
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
    // An owned mutex lives on without a handle, so the ownership has a reference.
    mutex.references.fetch_add(1, std::memory_order_relaxed);
    mutex.owned.store(true, std::memory_order_relaxed);
    mutex.owner = &thread;
    mutex.depth = 1;
    thread.mutexes.Add(mutex);
    return mutex.head->owner.exchange(1, std::memory_order_relaxed) == 0 ? Grab::Got : Grab::Abandoned;
}

// Ends the ownership. The caller releases its reference.
void GiveUp(MutexObject& mutex, bool abandon) ORIEL_LOCK_CHECK(requires_capability(mutex.lock)) {
    mutex.owner->mutexes.Remove(mutex);
    mutex.owner = nullptr;
    mutex.depth = 0;
    mutex.owned.store(false, std::memory_order_relaxed);
    // Before the unlocking: the next owner must not find the word set.
    if (!abandon) mutex.head->owner.store(0, std::memory_order_relaxed);
    if (mutex.file >= 0) LockFile(mutex.file, F_UNLCK);
}

void Ring(MutexObject& mutex) {
    // An addition of 0: either it sees the sleeper's bit, or the sleeper, whose change comes later, sees the release.
    if ((mutex.head->word.fetch_add(0, std::memory_order_acq_rel) & kSomebodySleeps) != 0)
        AddAndWakeAll(mutex.head->word, 1, mutex.named);
}

Grab GrabMutex(Object* object, WaitPoint& point, bool goingToSleep) {
    auto& mutex = *static_cast<MutexObject*>(object);
    ThreadObject* thread = CurrentThread();
    if (thread == nullptr) return Grab::Failed;
    Grab result = TryMutex(mutex, *thread);
    if (result != Grab::Busy || !goingToSleep) return result;
    // Set the bit first, then try again: a release between the first attempt and the bit wakes nobody.
    point.word = &mutex.head->word;
    point.value = point.word->fetch_or(kSomebodySleeps, std::memory_order_acq_rel) | kSomebodySleeps;
    point.shared = mutex.named;
    point.looks = mutex.named;
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
    while (MutexObject* mutex = thread.mutexes.First()) {
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
    return CreateByName({.type = &kMutexType,
                         .kind = ObjectKind::Mutex,
                         .name = name,
                         .make = MakeMutex,
                         .atCreation = initialOwner ? OwnAtCreation : nullptr},
                        attributes);
}

HANDLE WINAPI OpenMutexA(DWORD access, BOOL inherit, LPCSTR name) {
    return OpenByName({.type = &kMutexType, .kind = ObjectKind::Mutex, .name = name, .make = MakeMutex}, access,
                      inherit, kMutexRights);
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
    mutex.references.fetch_sub(1, std::memory_order_acq_rel); // not the last one: the handle has one
    return TRUE;
}
