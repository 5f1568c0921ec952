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
#include "security/records.h"

#include <cstddef>
#include <minwinbase.h>

namespace oriel {

enum class ObjectKind : uint32_t { ManualEvent = 1, AutoEvent = 2, Mutex = 3, Section = 4 };

// The first 64 bytes of the file. The bytes of a section follow at kSectionOffset.
struct ObjectHead {
    uint32_t mark; // written last
    ObjectKind kind;
    uint32_t size; // of a section, bytes; at most kLargestSection
    uint32_t reserved;
    Word word;  // event: its state (event.cpp). mutex: the word that waiters sleep on (mutex.cpp)
    Word owner; // mutex: not 0 while owned
    uint32_t padding[10];
};
static_assert(sizeof(ObjectHead) == 64 && offsetof(ObjectHead, word) == 16 && offsetof(ObjectHead, owner) == 20);
constexpr uint32_t kSectionOffset = 4096;
constexpr uint32_t kLargestSection = 1 << 20;
constexpr size_t kLongestFileName = 250;

struct NamedObject : Object {
    // As in the file when it was opened; another process may change the file later.
    ObjectKind kind{};
    uint32_t size = 0;
    bool named = false;
    bool readOnly = false;          // a section of which only views to read are asked for; another user's, perhaps
    std::atomic<bool> owned{false}; // a thread owns the mutex, with a reference of its own
    ObjectHead own{};               // of an unnamed object
    ObjectHead* head = &own;        // of a named object: in the mapped file
    int file = -1;                  // open where the kind or the file system needs it
    char fileName[kLongestFileName + 1] = ""; // "" after the name was removed
    NamedObject* nextNamed = nullptr;
};

// The arguments of OpenNamed.
struct NamedRequest {
    const ObjectType* type;
    ObjectKind kind;
    const char* name;                                  // NULL or "": unnamed
    uint32_t word = 0;                                 // of a new one
    uint32_t size = 0;                                 // of a new section
    NamedObject* (*make)();                            // an empty record; null without memory
    bool (*atCreation)(NamedObject* object) = nullptr; // before anyone else can see it; false with the last error set
    bool readOnly = false;                             // a section that is only read
    bool create = false;                               // CreateByName's: else it has to exist,
    ForEveryone forEveryone = ForEveryone::Nothing;    // and the rights of a new one
};

// For CreateEventA and its kin: a handle with all rights to a new or an existing object; the last error is
// ERROR_ALREADY_EXISTS for an existing one, else 0. An existing event may have the other kind of reset than requested.
// NULL with the last error set; ERROR_NOT_SUPPORTED for unsupported attributes.
HANDLE CreateByName(NamedRequest request, const SECURITY_ATTRIBUTES* attributes);

// For OpenEventA and its kin: a handle with the requested rights; ERROR_ACCESS_DENIED for none and for rights that the
// kind does not have.
HANDLE OpenByName(const NamedRequest& request, DWORD desired, BOOL inherit, const RightsMap& map);

// For ObjectType::drop: releases a reference. True for the last one: name, file and mapping are gone, and the caller
// deletes the record.
bool DropNamed(NamedObject* object);

// Security attributes that can be followed, else false with ERROR_NOT_SUPPORTED.
bool AttributesAreSupported(const SECURITY_ATTRIBUTES* attributes);

// Opens the file of a named object once more, without the flock that keeps the object alive. -1 when it is not there.
int ReopenFile(const NamedObject& object);

} // namespace oriel
