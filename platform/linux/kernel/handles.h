// Handles: small numbers that stand for objects of this process.
//
// Other folders add kinds of objects of their own: derive a record from Object, write an ObjectType for it, and give
// objects out with NewHandle. CloseHandle then works for them.
//
//     struct FileObject : Object { int descriptor; };
//     void DropFile(Object* object) {                       // one reference is given up
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

// What a waiter keeps of one object while it waits.
struct WaitPoint {
    Word* word = nullptr; // sleep on it while it has this value
    uint32_t value = 0;
    bool shared = false;
    bool begun = false;   // `first` is the word's value when the wait began
    uint32_t first = 0;   //
    uint32_t sliceMs = 0; // look again after so long even if nobody wakes us; 0: no need to
};
enum class Grab { Busy, Got, Abandoned, LimitReached, Failed };

// One for each kind of object; the address is the kind's identity.
struct ObjectType {
    const char* name;
    void (*drop)(Object* object);
    // Takes the object for the calling thread, if it can be had now. Otherwise fills in the point; when the caller is
    // going to sleep, makes sure that it will be woken. Null: objects of this kind cannot be waited for.
    Grab (*grab)(Object* object, WaitPoint& point, bool goingToSleep) = nullptr;
};

struct Object {
    const ObjectType* type;
    std::atomic<uint32_t> references{1};
};

// Gives up one of the counted references; true for the last one.
inline bool LastReference(Object* object) {
    return object->references.fetch_sub(1, std::memory_order_acq_rel) == 1;
}
inline void DropReference(Object* object) {
    object->type->drop(object);
}

constexpr DWORD kAllRights = 0xFFFFFFFF;

// A new handle, which takes over one reference of the object. access: the rights that calls through this handle have.
// NULL with ERROR_NOT_ENOUGH_MEMORY or ERROR_NO_SYSTEM_RESOURCES (65,535 are open); the reference is then given up.
HANDLE NewHandle(Object* object, DWORD access);

// The bare form of HandleUse, for many handles at a time, all within a TerminationHold. No lock: one atomic operation
// each.
struct HandlePin {
    Object* object = nullptr; // null: no open handle
    DWORD access = 0;
    uint32_t slot = 0;
};
HandlePin PinHandle(HANDLE handle);
void UnpinHandle(const HandlePin& pin);

// The object of a handle, kept alive as long as this exists. False with ERROR_INVALID_HANDLE when the handle designates
// no object of the type, with ERROR_ACCESS_DENIED when it lacks one of the rights asked for.
bool CheckPin(const HandlePin& pin, const ObjectType& type, DWORD access);

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
