// The records of named objects, and the list of those that this process uses.
//
// State under one lock: the list, and the connections to the object server (object_client.cpp). Lock order: this lock,
// the lock of a mutex.
#include "kernel/named_object.h"

#include "base/call.h"
#include "base/steps.h"

#include <cerrno>
#include <cstring>
#include <errhandlingapi.h>
#include <sys/mman.h>
#include <unistd.h>

namespace oriel {

constinit Lock g_namesLock;

namespace {

NamedObject* g_named[512] ORIEL_LOCK_CHECK(guarded_by(g_namesLock));

size_t Bucket(const char* name) {
    uint32_t hash = 2166136261U; // FNV-1a
    for (; *name != '\0'; ++name)
        hash = (hash ^ static_cast<unsigned char>(*name)) * 16777619U;
    return hash % (sizeof g_named / sizeof g_named[0]);
}

// Moves to the name that the server knows: without "Global\".
DWORD CheckName(const char*& name) {
    constexpr char kGlobal[] = "Global\\";
    if (std::strncmp(name, kGlobal, sizeof kGlobal - 1) == 0) name += sizeof kGlobal - 1;
    if (*name == '\0') return ERROR_INVALID_NAME;
    if (std::strchr(name, '\\') != nullptr) return ERROR_PATH_NOT_FOUND;
    return strnlen(name, kLongestObjectName + 1) <= kLongestObjectName ? ERROR_SUCCESS : ERROR_FILENAME_EXCED_RANGE;
}

NamedObject** FindPlace(const char* name) ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    NamedObject** place = &g_named[Bucket(name)];
    while (*place != nullptr && std::strcmp((*place)->name, name) != 0)
        place = &(*place)->nextNamed;
    return place;
}

// The object lives on without its name.
void Unlist(NamedObject& object) ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    if (object.name[0] == '\0') return;
    *FindPlace(object.name) = object.nextNamed;
    object.name[0] = '\0';
}

// The record of the process's object of that name, if it has one. An object of a server that is gone is no longer
// found: another process would get a new one by its name.
NamedObject* FindKnown(const char* name) ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    NamedObject* known = *FindPlace(name);
    if (known == nullptr || IsInForce(known->hold)) return known;
    Unlist(*known);
    return nullptr;
}

size_t MappedBytes(const NamedObject& object) {
    return ObjectBytes(object.kind, object.size);
}

// Fork children do not inherit the mapping; they make their own.
DWORD Map(NamedObject& object, Descriptor& memory) {
    const int protection = object.readOnly ? PROT_READ : PROT_READ | PROT_WRITE;
    void* address = mmap(nullptr, MappedBytes(object), protection, MAP_SHARED, memory.Get(), 0);
    if (address == MAP_FAILED) return SystemError(errno);
    madvise(address, MappedBytes(object), MADV_DONTFORK);
    object.head = static_cast<ObjectHead*>(address);
    if (object.kind == ObjectKind::Mutex) object.file = memory.Release();
    return ERROR_SUCCESS;
}

void Unmap(NamedObject& object) {
    if (object.head != &object.own) munmap(static_cast<void*>(object.head), MappedBytes(object));
    object.head = &object.own;
    if (object.file >= 0) close(object.file);
    object.file = -1;
}

DWORD Ask(const NamedRequest& request, const char* name, ObjectAnswer& answer)
    ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    ObjectRequest asked{.action = request.create ? ObjectAction::Create : ObjectAction::Open,
                        .flags = request.readingIsEnough ? kReadingIsEnough : 0,
                        .kind = request.kind,
                        .size = request.size,
                        .word = request.word,
                        .forEveryone = request.forEveryone};
    if (request.atCreation != nullptr) asked.flags |= kOwnedAtBirth;
    std::strncpy(asked.name, name, sizeof asked.name - 1);
    try {
        return AskForObject(asked, answer);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

DWORD Open(const NamedRequest& request, NamedObject& object, bool& existed)
    ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    ObjectAnswer answer;
    DWORD error = Ask(request, object.name, answer);
    if (error != ERROR_SUCCESS) return error;
    object.hold = answer.hold;
    object.kind = answer.reply.kind;
    object.size = answer.reply.size;
    object.readOnly = (answer.reply.flags & kOnlyReadable) != 0;
    existed = (answer.reply.flags & kExisted) != 0;
    error = Map(object, answer.memory);
    if (error == ERROR_SUCCESS && request.atCreation != nullptr && !existed && !request.atCreation(&object))
        error = GetLastError();
    if (error == ERROR_SUCCESS) return error;
    Unmap(object);
    GiveBack(object.hold, ObjectAction::Close);
    return error;
}

// Whether the process's object may be had in this way by the user that the thread acts as.
DWORD MayHave(const NamedRequest& request, const NamedObject& known)
    ORIEL_LOCK_CHECK(requires_capability(g_namesLock)) {
    if (known.type != request.type) return ERROR_INVALID_HANDLE;
    if (known.readOnly && !request.readingIsEnough) return ERROR_ACCESS_DENIED;
    if (!IsOtherUsers(known.hold)) return ERROR_SUCCESS;
    ObjectAnswer answer;
    const DWORD error = Ask(request, known.name, answer);
    if (error == ERROR_SUCCESS) GiveBack(answer.hold, ObjectAction::Close);
    return error;
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
    const char* name = request.name;
    DWORD error = CheckName(name);
    if (error != ERROR_SUCCESS) return Fail(error, nullptr);

    WatchForFork();
    LockHold names(g_namesLock); // without a time limit: every wait under this lock has one
    // One record for each object of the process: its handles share a mapping and a hold.
    if (NamedObject* known = FindKnown(name)) {
        error = MayHave(request, *known);
        if (error != ERROR_SUCCESS) return Fail(error, nullptr);
        known->references.fetch_add(1, std::memory_order_relaxed);
        existed = true;
        return known;
    }
    NamedObject* object = MakeRecord(request);
    if (object == nullptr) return nullptr;
    std::strncpy(object->name, name, sizeof object->name - 1);
    error = Open(request, *object, existed);
    if (error != ERROR_SUCCESS) {
        DropReference(object);
        return Fail(error, nullptr);
    }
    object->named = true;
    *FindPlace(name) = object;
    return object;
}

} // namespace

bool DropNamed(NamedObject* object) {
    if (!object->named) return LastReference(object);
    // No lock while more than two references remain. The last two need it: one of them may be the owner's.
    uint32_t count = object->references.load(std::memory_order_relaxed);
    while (count > 2)
        if (object->references.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) return false;

    LockHold names(g_namesLock);
    const uint32_t left = object->references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    // The last handle was closed while a thread of this process owns the mutex. If no other process has it, its name is
    // given back now, as for a mutex without an owner; otherwise the mutex stays owned.
    if (left == 1 && object->owned.load(std::memory_order_relaxed) && GiveBack(object->hold, ObjectAction::CloseOwned))
        Unlist(*object);
    if (left != 0) return false;
    Unlist(*object);
    Unmap(*object);
    GiveBack(object->hold, ObjectAction::Close);
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
    if ((desired & MAXIMUM_ALLOWED) != 0) rights |= object->readOnly ? map.read | map.execute : map.all;
    return NewHandle(object, rights);
}

namespace {

// The child has none of its parent's objects: it did not inherit the mappings, and the descriptors are closed here.
void ForgetNames() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_namesLock.ForgetOwner();
    ForgetConnections();
    for (NamedObject*& first : g_named) {
        for (NamedObject* object = first; object != nullptr; object = object->nextNamed)
            if (object->file >= 0) close(object->file);
        first = nullptr;
    }
}

} // namespace

const ForkSteps kNamesFork{TakeForFork<g_namesLock>, ReleaseAfterFork<g_namesLock>, ForgetNames};

} // namespace oriel
