// Handles: small numbers for the objects of this process. State: the handle table (handles.cpp).
//
// Other folders add kinds of objects: derive a record from Object, write an ObjectType for it, and call NewHandle.
// CloseHandle then works for it.
//
//     struct FileObject : Object { int descriptor; };
//     void DropFile(Object* object) {                       // releases one reference
//         if (!LastReference(object)) return;
//         close(static_cast<FileObject*>(object)->descriptor);
//         delete static_cast<FileObject*>(object);
//     }
//     constexpr ObjectType kFileType{.name = "file", .drop = DropFile};
//
//     HANDLE handle = NewHandle(new FileObject{{&kFileType}, descriptor}, GENERIC_READ);
//     HandleUse<FileObject> file(handle, kFileType, 0);     // keeps it alive even if another thread closes the handle
//     if (!file) return FALSE;                              // the last error is set
//     use(file->descriptor);
#pragma once

#include "base/futex.h"
#include "base/lock.h"

#include <winnt.h>

namespace oriel {

struct Object;

// What a wait remembers of one object.
struct WaitPoint {
    Word* word = nullptr; // sleep on it while it has this value
    uint32_t value = 0;
    bool shared = false;
    bool begun = false; // `first` is set
    bool from = false;  // it was set by the caller, as an event's position
    uint32_t first = 0; // the word when the wait began, or where it is to begin
    bool looks = false; // now and then also without a wake-up (Timings.mutexLook)
    // The signal whose step the wait does meanwhile (OrielStepInWait), with a reference, and the word that was last
    // seen.
    Object* signal = nullptr;
    SleepPoint signalled{};
};
// Busy: keep waiting. Abandoned: got, from an owner that died. LimitReached: a mutex that is owned too often.
enum class Grab { Busy, Got, Abandoned, LimitReached, Failed };

// A kind of object. Its address identifies the kind.
struct ObjectType {
    const char* name;
    void (*drop)(Object* object);
    // Takes the object for the calling thread if it is free; otherwise fills in `point`. goingToSleep: also arranges
    // the wake-up. Null for objects that cannot be waited for.
    Grab (*grab)(Object* object, WaitPoint& point, bool goingToSleep) = nullptr;
    // Whether a wait for the object may begin at an earlier word. Null: never.
    bool (*remembers)(const Object* object) = nullptr;
};

// Base of all records. The creator holds the first reference; the drop of the last one deletes the record.
struct Object {
    const ObjectType* type;
    std::atomic<uint32_t> references{1};
};

// Releases one reference. True for the last one.
inline bool LastReference(Object* object) {
    return object->references.fetch_sub(1, std::memory_order_acq_rel) == 1;
}
inline void DropReference(Object* object) {
    object->type->drop(object);
}

constexpr DWORD kAllRights = 0xFFFFFFFF;

// The meaning of the generic rights, and all rights of the kind.
struct RightsMap {
    DWORD read;
    DWORD write;
    DWORD execute;
    DWORD all;
};

// The requested rights, with generic ones replaced by their meaning; MAXIMUM_ALLOWED is left to the caller. False for
// rights that the kind does not have.
bool MapRights(DWORD asked, const RightsMap& map, DWORD* rights);

// Makes a handle, which takes over one reference. access: the rights of calls through it. On failure NULL and the
// reference is released: ERROR_NOT_ENOUGH_MEMORY, or ERROR_NO_SYSTEM_RESOURCES with 65,535 open handles.
HANDLE NewHandle(Object* object, DWORD access);

// The bare form of HandleUse, for many handles at once, inside a TerminationHold. Each call is one atomic operation,
// without a lock.
struct HandlePin {
    Object* object = nullptr; // null when the handle is not open
    DWORD access = 0;
    uint32_t slot = 0;
};
HandlePin PinHandle(HANDLE handle);
void UnpinHandle(const HandlePin& pin);
// Fetches what UnpinHandle, and a look at the object, will need.
void PrefetchPin(const HandlePin& pin);

// True when the pin has an object of this type and all rights asked for; else false with ERROR_INVALID_HANDLE or
// ERROR_ACCESS_DENIED.
bool CheckPin(const HandlePin& pin, const ObjectType& type, DWORD access);

// The object of a handle, kept alive for the life of the guard. False, with the last error of CheckPin, when the handle
// does not fit. The thread cannot be stopped in that time.
template <typename Record>
class HandleUse {
public:
    HandleUse(HANDLE handle, const ObjectType& type, DWORD access)
        : m_pin(PinHandle(handle)), m_valid(CheckPin(m_pin, type, access)) {}
    ~HandleUse() {
        if (m_pin.object != nullptr) UnpinHandle(m_pin);
    }
    HandleUse(const HandleUse&) = delete;
    HandleUse& operator=(const HandleUse&) = delete;

    explicit operator bool() const { return m_valid; }
    Record* operator->() const { return static_cast<Record*>(m_pin.object); }
    Record* Get() const { return static_cast<Record*>(m_pin.object); }

private:
    TerminationHold m_hold;
    HandlePin m_pin;
    bool m_valid;
};

} // namespace oriel
