// Objects that processes share by name: events, mutexes, sections. Unnamed ones have the same record, without a file.
//
// A named object is a small file in the run directory's folder "objects", named as the object is, which every process
// that uses it maps. The process's mapping, or its open descriptor where that has to be, carries a shared flock, which
// says that the object is alive; the last one out removes the file. A file that nobody holds was left by a process that
// died; whoever creates the object next starts it afresh. All of this happens under one lock, an exclusive flock of the
// folder, for which nobody waits longer than a few seconds.
//
// Only numbers lie in the file: no pointers, no types of the C library. Others write it too, so it is looked at before
// it is used: a regular file with one link, of the right size, with the right marks. A process that may write the file
// can still disturb the object, and can cut the file short while others look at it, which ends them with SIGBUS.
#pragma once

#include "kernel/handles.h"

#include <cstddef>
#include <minwinbase.h>

namespace oriel {

enum class ObjectKind : uint32_t { ManualEvent = 1, AutoEvent = 2, Mutex = 3, Section = 4 };

// Head of the file; a section's bytes follow from kSectionOffset on.
struct ObjectHead {
    uint32_t mark; // written last
    ObjectKind kind;
    uint32_t size; // of a section, in bytes
    uint32_t reserved;
    Word word;  // event: its state (event.cpp). mutex: its bell (mutex.cpp)
    Word owner; // mutex: not 0 while owned
    uint32_t padding[10];
};
static_assert(sizeof(ObjectHead) == 64 && offsetof(ObjectHead, word) == 16 && offsetof(ObjectHead, owner) == 20);
constexpr uint32_t kSectionOffset = 4096;
constexpr size_t kLongestFileName = 250;

struct NamedObject : Object {
    ObjectKind kind{}; // as the file said when it was opened,
    uint32_t size = 0; // like this
    bool named = false;
    std::atomic<bool> owned{false};           // one of the references is that of the thread that owns the mutex
    ObjectHead own{};                         // of an unnamed object
    ObjectHead* head = &own;                  // else the file's, mapped
    int file = -1;                            // kept open where the kind or the file system needs it
    char fileName[kLongestFileName + 1] = ""; // "" once the name has been removed
    NamedObject* nextNamed = nullptr;
};

struct NamedRequest {
    const ObjectType* type;
    ObjectKind kind;
    const char* name;                                  // NULL or "": unnamed
    bool create = false;                               // else it has to exist
    bool forEveryone = false;                          // the rights of a new one
    uint32_t word = 0;                                 // of a new one
    uint32_t size = 0;                                 // of a new section
    NamedObject* (*make)();                            // an empty record; null without memory
    bool (*atCreation)(NamedObject* object) = nullptr; // before anyone else can see it; false with the last error set
};

// A reference of the object, or null with the last error set. existed: it was there before. An event of the other kind
// of reset is taken for the one asked for.
NamedObject* OpenNamed(const NamedRequest& request, bool& existed);

// For ObjectType::drop: gives up a reference. True when it was the last one: the name, the file and the mapping are
// then gone, and the record is to be deleted.
bool DropNamed(NamedObject* object);

// A handle for the outcome of OpenNamed with creation: sets the last error to ERROR_ALREADY_EXISTS or 0.
HANDLE HandleOfCreated(NamedObject* object, bool existed);

// Security attributes that can be followed, else false with ERROR_NOT_SUPPORTED.
bool AttributesAreSupported(const SECURITY_ATTRIBUTES* attributes);

// What the generic rights stand for, and all rights that the kind has.
struct RightsMap {
    DWORD read;
    DWORD write;
    DWORD execute;
    DWORD all;
};
// A handle with the rights asked for, taking over the reference; ERROR_ACCESS_DENIED for none and for rights that the
// kind does not have.
HANDLE HandleWithRights(NamedObject* object, DWORD desired, const RightsMap& map);

// Opens the file of a named object once more, without the flock that keeps the object alive. -1 when it is not there.
int ReopenFile(const NamedObject& object);

} // namespace oriel
