// Objects that processes share by name: events, mutexes, sections. Unnamed ones have the same record without a file.
//
// A named object is a small file in the folder "objects" of the run directory, with the name of the object. Every
// process that uses it maps it. The mapping (or an open descriptor, where that is necessary) carries a shared flock,
// which keeps the object alive; the last process removes the file. A file without a flock was left by a process that
// died; the next creator initialises it anew. All this happens under an exclusive flock of the folder, which nobody
// waits for longer than a few seconds.
//
// The file holds only numbers, no pointers and no types of the C library. Other processes write it too, so it is
// checked before use: a regular file with one link, the right size and the right marks. A process that may write to the
// file can still disturb the object, or truncate the file and so end the others with SIGBUS.
//
// State: named_object.cpp. Any thread may call these functions.
#pragma once

#include "kernel/handles.h"

#include <cstddef>
#include <minwinbase.h>

namespace oriel {

enum class ObjectKind : uint32_t { ManualEvent = 1, AutoEvent = 2, Mutex = 3, Section = 4 };

// The first 64 bytes of the file. The bytes of a section follow at kSectionOffset.
struct ObjectHead {
    uint32_t mark; // written last
    ObjectKind kind;
    uint32_t size; // of a section, bytes; at most 65,536
    uint32_t reserved;
    Word word;  // event: its state (event.cpp). mutex: the word that waiters sleep on (mutex.cpp)
    Word owner; // mutex: not 0 while owned
    uint32_t padding[10];
};
static_assert(sizeof(ObjectHead) == 64 && offsetof(ObjectHead, word) == 16 && offsetof(ObjectHead, owner) == 20);
constexpr uint32_t kSectionOffset = 4096;
constexpr size_t kLongestFileName = 250;

struct NamedObject : Object {
    // As in the file when it was opened; another process may change the file later.
    ObjectKind kind{};
    uint32_t size = 0;
    bool named = false;
    std::atomic<bool> owned{false};           // a thread owns the mutex, with a reference of its own
    ObjectHead own{};                         // of an unnamed object
    ObjectHead* head = &own;                  // of a named object: in the mapped file
    int file = -1;                            // open where the kind or the file system needs it
    char fileName[kLongestFileName + 1] = ""; // "" after the name was removed
    NamedObject* nextNamed = nullptr;
};

// The arguments of OpenNamed.
struct NamedRequest {
    const ObjectType* type;
    ObjectKind kind;
    const char* name;                                  // NULL or "": unnamed
    bool create = false;                               // false: it must exist
    bool forEveryone = false;                          // access for all users, if new
    uint32_t word = 0;                                 // initial word, if new
    uint32_t size = 0;                                 // of a section, if new
    NamedObject* (*make)();                            // allocates an empty record; null when memory is lacking
    bool (*atCreation)(NamedObject* object) = nullptr; // before other processes see it; false with the last error set
};

// Opens or creates the object and returns a reference, or null with the last error set. existed: it was there before.
// An event may have the other kind of reset than requested.
NamedObject* OpenNamed(const NamedRequest& request, bool& existed);

// For ObjectType::drop: releases a reference. True for the last one: name, file and mapping are gone, and the caller
// deletes the record.
bool DropNamed(NamedObject* object);

// The handle for an object from OpenNamed with create; takes over the reference. Last error: ERROR_ALREADY_EXISTS if it
// existed, else 0.
HANDLE HandleOfCreated(NamedObject* object, bool existed);

// False with ERROR_NOT_SUPPORTED for a handle that child processes shall inherit.
bool AttributesAreSupported(const SECURITY_ATTRIBUTES* attributes);

// The rights that each generic right stands for, and all rights of the kind.
struct RightsMap {
    DWORD read;
    DWORD write;
    DWORD execute;
    DWORD all;
};
// A handle with the desired rights; takes over the reference. NULL with ERROR_ACCESS_DENIED for no rights at all and
// for rights that the kind does not have.
HANDLE HandleWithRights(NamedObject* object, DWORD desired, const RightsMap& map);

// Opens the file of a named object again, without the flock that keeps the object alive. -1 when it is gone. The caller
// closes it.
int ReopenFile(const NamedObject& object);

} // namespace oriel
